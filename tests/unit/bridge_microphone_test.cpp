// SPDX-License-Identifier: Apache-2.0
// From a simulated card with its own clock to blocks by the board's clock.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <uafd_companion.h>
#include <vector>

#include <gtest/gtest.h>

#include "companion/bridge/microphone.h"
#include "tests/unit/simulated_card.h"

namespace uafd {
namespace {

constexpr double kLatencyMs = 25;
constexpr int64_t kMs = 1000000;
constexpr double kBend = 0.5 * 0.1309 * 0.1309;  // the tone's second difference
constexpr size_t kSettled = 4800;

class BridgeMicrophone : public testing::Test {
  protected:
    explicit BridgeMicrophone(double rate = 48000) : card(&now, rate) { microphone.attach(&card); }

    int block() {
        int16_t samples[UAFD_CHANNELS * UAFD_BLOCK_FRAMES] = {};
        const int result = microphone.fill(samples, now);
        for (int i = 0; i < UAFD_BLOCK_FRAMES; ++i) {
            EXPECT_EQ(samples[2 * i], samples[2 * i + 1]);
            said.push_back(static_cast<float>(samples[2 * i]) / 32768);
        }
        if (hostRecords) {
            microphone.onTaken();
        }
        now += 10 * kMs;
        return result;
    }
    void record(double seconds) {
        for (int i = 0; i < static_cast<int>(seconds * 100); ++i) {
            EXPECT_EQ(block(), 0);
        }
    }
    void expectSmooth(size_t from) const {
        EXPECT_LT(largestBend(said, from, said.size()), 1.1 * kBend);
    }

    int64_t now = 1000 * kMs;
    bool hostRecords = true;
    SimulatedCard card;
    Microphone microphone{kLatencyMs};
    std::vector<float> said;
};

TEST_F(BridgeMicrophone, HoldsTheFillBetweenTwoClocks) {
    for (const double ppm : {200.0, -1000.0}) {
        SimulatedCard other(&now);
        other.ppm = ppm;
        other.stepMs = 4;
        microphone.attach(&other);
        said.clear();
        record(60);
        const PathFacts facts = microphone.facts();
        EXPECT_TRUE(facts.isRunning);
        EXPECT_EQ(facts.counts.xruns, 0);
        EXPECT_EQ(facts.counts.lostFrames, 0);
        EXPECT_NEAR(facts.ppm, ppm, 80);
        EXPECT_NEAR(facts.latencyMs, kLatencyMs, 4);
        expectSmooth(kSettled);
        microphone.attach(nullptr);
    }
}

TEST_F(BridgeMicrophone, RunsTheCardWhileTheHostRecords) {
    hostRecords = false;
    record(1);
    EXPECT_EQ(card.starts, 0);
    hostRecords = true;
    record(1);
    EXPECT_EQ(card.starts, 1);
    EXPECT_TRUE(microphone.facts().isRunning);
    const size_t first = static_cast<size_t>(
        std::find_if(said.begin(), said.end(), [](float s) { return s != 0; }) - said.begin());
    EXPECT_NEAR(static_cast<double>(first) / 480, 104, 2) << "the latency after it began";
    expectSmooth(0);
    hostRecords = false;
    record(1);
    EXPECT_EQ(card.stops, 1);
    EXPECT_FALSE(microphone.facts().isRunning);
    hostRecords = true;
    record(1);
    EXPECT_EQ(card.starts, 2);
    EXPECT_EQ(microphone.facts().counts.xruns, 0);
}

TEST_F(BridgeMicrophone, CountsAnOverrunAndGoesOn) {
    record(1);
    now += 200 * kMs;
    record(1);
    EXPECT_EQ(microphone.facts().counts.xruns, 1);
    EXPECT_EQ(card.starts, 2);
    EXPECT_TRUE(microphone.facts().isRunning);
    EXPECT_NEAR(microphone.facts().latencyMs, kLatencyMs, 1);
}

// The card delivers nothing for 100 ms, then goes on.
TEST_F(BridgeMicrophone, FadesOutWhenTheCardIsLate) {
    record(1);
    card.stepMs = 100;
    card.bufferMs = 1000;
    record(0.3);
    EXPECT_GT(microphone.facts().counts.xruns, 0);
    expectSmooth(0);
}

TEST_F(BridgeMicrophone, DropsWhatIsTooMuch) {
    card.bufferMs = 200;
    record(1);
    now += 75 * kMs;
    record(1);
    EXPECT_NEAR(microphone.facts().latencyMs, kLatencyMs, 1);
    EXPECT_GT(microphone.facts().counts.lostFrames, 40 * 48);
    EXPECT_EQ(microphone.facts().counts.xruns, 0);
}

TEST_F(BridgeMicrophone, AppliesTheMute) {
    record(1);
    microphone.takePeak();
    microphone.gain.setMute(true);
    record(0.1);
    EXPECT_NEAR(microphone.takePeak(), 0.5, 0.1);
    record(0.1);
    EXPECT_EQ(microphone.takePeak(), 0);
    EXPECT_EQ(said.back(), 0);
    expectSmooth(kSettled);
}

TEST_F(BridgeMicrophone, TellsThatTheCardHasFailed) {
    record(1);
    card.error = -ENODEV;
    EXPECT_EQ(block(), -ENODEV);
    microphone.attach(nullptr);
    EXPECT_EQ(block(), 0);
    EXPECT_EQ(said.back(), 0);
}

class BridgeMicrophoneRates : public BridgeMicrophone, public testing::WithParamInterface<double> {
  protected:
    BridgeMicrophoneRates() : BridgeMicrophone(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(Rates, BridgeMicrophoneRates,
                         testing::Values(8000, 16000, 44100, 96000, 192000));

TEST_P(BridgeMicrophoneRates, HearsTheToneAtTheCardsRate) {
    card.ppm = 100;
    record(3);
    EXPECT_EQ(microphone.facts().counts.xruns, 0);
    EXPECT_NEAR(microphone.facts().latencyMs, kLatencyMs, 1.5);
    expectSmooth(kSettled);
}

}  // namespace
}  // namespace uafd
