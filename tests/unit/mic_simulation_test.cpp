// SPDX-License-Identifier: Apache-2.0
#include "tools/drift/mic_simulation.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace uafd {
namespace {

using drift::Counts;
using drift::kMs;
using drift::kSecond;
using drift::measure;
using drift::Measured;
using drift::MicSimulation;
using drift::Ns;
using drift::Reading;
using drift::Scenario;

constexpr int64_t kBlock = 480;

Scenario withPpm(int ppm, Ns jitter = 0) {
    Scenario scenario;
    scenario.ppm = ppm;
    scenario.jitter = jitter;
    return scenario;
}

// Ten phases evenly spread over the 10 ms in which the app's and the host's phases repeat.
std::vector<Scenario> inEveryPhase(Scenario scenario) {
    std::vector<Scenario> scenarios;
    for (int i = 0; i < 10; ++i) {
        scenario.phase = kMs / 4 + i * kMs;
        scenario.seed = static_cast<uint64_t>(i);
        scenarios.push_back(scenario);
    }
    return scenarios;
}

void expectWhole(const Counts& counts) {
    EXPECT_EQ(counts.underruns, 0);
    EXPECT_EQ(counts.emptyReads, 0);
    EXPECT_EQ(counts.overruns, 0);
    EXPECT_EQ(counts.lost, 0);
    EXPECT_EQ(counts.silent, 0);
    EXPECT_EQ(counts.stale, 0);
    EXPECT_EQ(counts.enlargedAt, -1);
}

TEST(MicSimulation, DrawsOutTheFirst120FramesAndNoneAfterThemWhenTheClocksAreEqual) {
    Ns lastCorrection = 0;
    const Measured measured =
        measure(withPpm(0), 60 * kSecond, [&](const Reading& reading, const Counts&) {
            lastCorrection = reading.correction != 0 ? reading.at : lastCorrection;
        });
    EXPECT_EQ(measured.counts.stretches, 120);
    EXPECT_EQ(measured.counts.squeezes, 0);
    EXPECT_NEAR(static_cast<double>(lastCorrection), 1.2 * kSecond, 10 * kMs);
    EXPECT_EQ(measured.depth.smallest, 10 * kMs);
    EXPECT_EQ(measured.depth.largest, 15 * kMs);
    expectWhole(measured.counts);
}

TEST(MicSimulation, BringsTheFirstSoundAfterTheStartupSilence) {
    MicSimulation simulation(withPpm(0));
    EXPECT_EQ(simulation.read().latency, -1);
    EXPECT_EQ(simulation.read().latency, -1);
    const Reading first = simulation.read();
    EXPECT_EQ(first.at, 5 * kMs);
    EXPECT_EQ(first.depth, 600);
    // 2.5 ms of the silence that filled the buffer at the start, the ring's 10 ms, and the USB
    // frame, minus what the app wrote ahead of its clock.
    EXPECT_EQ(first.latency, 16 * kMs);
    EXPECT_EQ(simulation.counts().silent, 0);
}

TEST(MicSimulation, MakesUpForTheClocksDifferenceAndForNoMore) {
    for (const int ppm : {1000, -1000, 500, -500, 50, -50}) {
        const Measured measured = measure(withPpm(ppm), 203 * kSecond);
        const double drift = 48000e-6 * ppm;
        EXPECT_NEAR(measured.stretchesPerSecond - measured.squeezesPerSecond, drift, 0.8) << ppm;
        EXPECT_EQ(std::min(measured.stretchesPerSecond, measured.squeezesPerSecond), 0) << ppm;
        expectWhole(measured.counts);
    }
}

// The figures of docs/soak.md, measured on the board, in ms.
TEST(MicSimulation, HasTheLatencyOfTheBoard) {
    const struct {
        int ppm;
        Ns jitter;
        double median;
    } soaked[] = {
        {500, 0, 17.93},        {-500, 0, 19.12},        {1000, 0, 17.32},
        {-1000, 0, 19.77},      {500, 3 * kMs, 18.73},   {-500, 3 * kMs, 21.32},
        {1000, 3 * kMs, 18.12}, {-1000, 3 * kMs, 21.93}, {500, 8 * kMs, 32.83},
        {-500, 8 * kMs, 37.23}, {1000, 8 * kMs, 31.82},  {-1000, 8 * kMs, 38.23},
    };
    for (const auto& piece : soaked) {
        const Measured measured = measure(withPpm(piece.ppm, piece.jitter), 300 * kSecond);
        EXPECT_NEAR(static_cast<double>(measured.latency.median) / kMs, piece.median, 0.15)
            << piece.ppm << " ppm, jitter " << piece.jitter / kMs << " ms";
    }
}

TEST(MicSimulation, HoldsAJitterOf3MsOnceSettled) {
    for (const int ppm : {0, 50, -50, 1000, -1000}) {
        for (const Scenario& scenario : inEveryPhase(withPpm(ppm, 3 * kMs))) {
            int starved = 0;
            const Measured measured =
                measure(scenario, 30 * kSecond, [&](const Reading& reading, const Counts&) {
                    starved += reading.starved && reading.at > drift::kSettling ? 1 : 0;
                });
            EXPECT_EQ(starved, 0);
            EXPECT_EQ(measured.counts.overruns, 0);
            EXPECT_EQ(measured.counts.enlargedAt, -1);
        }
    }
}

TEST(MicSimulation, StarvesUnderAJitterOf8MsUntilTheBufferIsEnlarged) {
    for (const Scenario& scenario : inEveryPhase(withPpm(500, 8 * kMs))) {
        int64_t starvedBefore = 0;
        int64_t starvedAfter = 0;
        Reading last{};
        const Measured measured =
            measure(scenario, 60 * kSecond, [&](const Reading& reading, const Counts& counts) {
                if (counts.written > 0 && reading.starved && reading.depth > 0) {
                    ++(counts.enlargedAt < 0 ? starvedBefore : starvedAfter);
                }
                last = reading;
            });
        // Some underruns may lie before the second that has 11 of them.
        EXPECT_GE(starvedBefore, 11);
        EXPECT_EQ(starvedAfter, 0);
        EXPECT_GE(measured.counts.enlargedAt, kSecond);
        EXPECT_EQ(last.depthLow, 960);
        EXPECT_EQ(last.depthHigh, 1440);
        EXPECT_GE(last.latency, 28 * kMs);
    }
}

TEST(MicSimulation, LosesNothingButWhatItCounts) {
    std::vector<Scenario> scenarios = inEveryPhase(withPpm(-300, 15 * kMs));
    for (const int block : {100, 240, 480, 700, 960, 1024, 1920, 4800}) {
        Scenario scenario = withPpm(200, 2 * kMs);
        scenario.blockFrames = block;
        scenario.pauses = {{4 * kSecond, 35 * kMs, false}, {5 * kSecond, 35 * kMs, true}};
        scenarios.push_back(scenario);
    }
    for (const Scenario& scenario : scenarios) {
        MicSimulation simulation(scenario);
        while (simulation.read().at < 8 * kSecond) {
            const Counts& counts = simulation.counts();
            ASSERT_EQ(counts.written, simulation.played() + simulation.queued() + counts.lost)
                << scenario.blockFrames;
        }
        EXPECT_GT(simulation.counts().lost, 0);
    }
}

TEST(MicSimulation, DropsWhatComesTooLateAndRefillsTheBuffer) {
    Scenario scenario = withPpm(0);
    scenario.pauses = {{10 * kSecond, 50 * kMs, false}};
    Ns silentFrom = -1;
    const Measured measured =
        measure(scenario, 20 * kSecond, [&](const Reading& reading, const Counts&) {
            silentFrom =
                silentFrom < 0 && reading.at > kSecond && reading.starved ? reading.at : silentFrom;
        });
    // The block before the pause lasted 15 ms, minus the phase.
    EXPECT_EQ(silentFrom, 10 * kSecond + 10 * kMs);
    // Five blocks were due; only the first one fits.
    EXPECT_EQ(measured.counts.overruns, 4);
    EXPECT_EQ(measured.counts.lost, 4 * kBlock);
    EXPECT_EQ(measured.counts.written, 20 * 48000);
    EXPECT_EQ(measured.latency.median, 37 * kMs / 2);
}

TEST(MicSimulation, LeavesAGapAsSilence) {
    Scenario scenario = withPpm(0);
    scenario.pauses = {{10 * kSecond, 100 * kMs, true}};
    const Counts counts = measure(scenario, 20 * kSecond).counts;
    EXPECT_EQ(counts.written, 20 * 48000 - 10 * kBlock);
    EXPECT_EQ(counts.overruns, 0);
    EXPECT_EQ(counts.lost, 0);
    // The silence that is missing, minus the 2.5 ms by which the buffer's middle is below its
    // former depth, and minus the two samples by which the last frames were stretched.
    EXPECT_EQ(counts.silent, 10 * kBlock - 120 - 2);
}

TEST(MicSimulation, TakesHalfABlockForAWholeOne) {
    Scenario scenario = withPpm(0);
    scenario.blockFrames = 240;
    MicSimulation simulation(scenario);
    while (simulation.read().at < 10 * kSecond) {
    }
    const Counts& counts = simulation.counts();
    EXPECT_NEAR(static_cast<double>(counts.stale), static_cast<double>(simulation.played()), 480);
    EXPECT_NEAR(static_cast<double>(counts.lost), static_cast<double>(counts.written) / 2, 4800);
}

TEST(MicSimulation, TakesAWriteOfTwoBlocksWholeAndOneBeyondThePipesPageNot) {
    Scenario scenario = withPpm(0);
    scenario.blockFrames = 960;
    EXPECT_EQ(measure(scenario, 10 * kSecond).counts.stale, 0);
    scenario.blockFrames = 1440;
    EXPECT_GT(measure(scenario, 10 * kSecond).counts.stale, 0);
}

}  // namespace
}  // namespace uafd
