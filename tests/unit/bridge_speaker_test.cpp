// SPDX-License-Identifier: Apache-2.0
// From a simulated host to a simulated card, each with its own clock.
#include <cmath>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "companion/bridge/speaker.h"
#include "tests/unit/simulated_card.h"

namespace uafd {
namespace {

constexpr int kPeriod = 240;
constexpr double kLatencyMs = 20;
constexpr double kToneHz = 1000;
constexpr int64_t kMs = 1000000;

// The second difference of the tone, for a card of this rate.
double bendOf(double rate) {
    return 0.5 * std::pow(2 * M_PI * kToneHz / rate, 2);
}

class BridgeSpeaker : public testing::Test {
  protected:
    explicit BridgeSpeaker(double rate = 48000) : card(&now, rate) { speaker.attach(&card); }

    // The host plays its tone for this time.
    void play(double seconds) {
        const auto end = now + static_cast<int64_t>(seconds * 1e9);
        for (; now < end; now += blockNs()) {
            EXPECT_EQ(give(kPeriod), 0);
        }
    }
    int64_t blockNs() const { return static_cast<int64_t>(5e6 / (1 + hostPpm / 1e6)); }
    int give(size_t frames) {
        std::vector<int16_t> stereo;
        for (size_t i = 0; i < frames; ++i, ++frame) {
            const double turns = kToneHz * static_cast<double>(frame) / 48000;
            stereo.push_back(static_cast<int16_t>(std::lround(16384 * std::sin(2 * M_PI * turns))));
            stereo.push_back(-1);
        }
        return speaker.play(stereo.data(), frames, now);
    }
    void expectSmooth(size_t from) const {
        EXPECT_LT(largestBend(card.played, from, card.played.size()), 1.1 * bendOf(card.rate()));
    }

    int64_t now = 1000 * kMs;
    double hostPpm = 0;
    int64_t frame = 0;
    SimulatedCard card;
    Speaker speaker{kLatencyMs};
};

TEST_F(BridgeSpeaker, HoldsTheFillBetweenTwoClocks) {
    for (const auto& [host, own] : {std::pair(200.0, -200.0), {-1000.0, 500.0}}) {
        SimulatedCard fresh(&now);
        fresh.ppm = own;
        fresh.stepMs = 4;
        hostPpm = host;
        speaker.attach(&fresh);
        play(60);
        const PathFacts facts = speaker.facts();
        EXPECT_TRUE(facts.isRunning);
        EXPECT_EQ(facts.counts.xruns, 0);
        EXPECT_EQ(facts.counts.lostFrames, 0);
        EXPECT_NEAR(facts.ppm, own - host, 80);
        EXPECT_NEAR(facts.latencyMs, kLatencyMs, 4);
        EXPECT_LT(largestBend(fresh.played, 2000, fresh.played.size()), 1.1 * bendOf(48000));
        EXPECT_EQ(fresh.starts, 1);
        speaker.attach(nullptr);
    }
}

TEST_F(BridgeSpeaker, BeginsAndEndsWithTheHostsStream) {
    play(1);
    now += 300 * kMs;
    EXPECT_EQ(speaker.watch(now), 0);
    EXPECT_FALSE(speaker.facts().isRunning);
    EXPECT_EQ(card.stops, 1);
    card.played.clear();
    play(1);
    EXPECT_EQ(card.starts, 2);
    EXPECT_EQ(speaker.facts().counts.xruns, 0) << "a pause is none";
    // Silence up to the target, then a tone that grows from nothing.
    EXPECT_EQ(card.played[0], 0);
    EXPECT_LT(std::abs(card.played[750]), 0.02F);
    expectSmooth(0);
}

TEST_F(BridgeSpeaker, CountsAnXrunAndGoesOn) {
    play(1);
    now += 200 * kMs;  // longer than a pause of the host
    EXPECT_EQ(give(4 * kPeriod), 0);
    EXPECT_EQ(speaker.facts().counts.xruns, 1);
    const size_t recovered = card.played.size();
    now += blockNs();
    play(1);
    EXPECT_EQ(speaker.facts().counts.xruns, 1);
    EXPECT_NEAR(speaker.facts().latencyMs, kLatencyMs, 1);
    expectSmooth(recovered);
}

TEST_F(BridgeSpeaker, LeavesOutWhatHasWaitedForALateStart) {
    EXPECT_EQ(give(1024), 0);
    now += blockNs();
    play(1);
    EXPECT_NEAR(speaker.facts().latencyMs, kLatencyMs, 1);
    EXPECT_EQ(speaker.facts().counts.xruns, 0);
}

TEST_F(BridgeSpeaker, DropsWhatTheCardHasNoRoomFor) {
    play(1);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(give(kPeriod), 0);
    }
    EXPECT_GT(speaker.facts().counts.lostFrames, 8 * kPeriod);
    EXPECT_LT(speaker.facts().latencyMs, 61);
    EXPECT_EQ(speaker.facts().counts.xruns, 0);
}

TEST_F(BridgeSpeaker, TellsThePeakAndAppliesTheVolume) {
    play(1);
    EXPECT_NEAR(speaker.takePeak(), 0.5, 0.001);
    EXPECT_EQ(speaker.takePeak(), 0);
    speaker.gain.setVolume(-20 * 256);
    play(0.1);
    speaker.takePeak();
    play(0.1);
    EXPECT_NEAR(speaker.takePeak(), 0.05, 0.001);
    expectSmooth(2000);
}

TEST_F(BridgeSpeaker, TellsThatTheCardHasFailed) {
    play(1);
    card.error = -ENODEV;
    EXPECT_EQ(give(kPeriod), -ENODEV);
    speaker.attach(nullptr);
    EXPECT_EQ(give(kPeriod), 0) << "goes nowhere";
    EXPECT_FALSE(speaker.facts().isRunning);
}

class BridgeSpeakerRates : public BridgeSpeaker, public testing::WithParamInterface<double> {
  protected:
    BridgeSpeakerRates() : BridgeSpeaker(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(Rates, BridgeSpeakerRates,
                         testing::Values(8000, 16000, 44100, 96000, 192000));

TEST_P(BridgeSpeakerRates, PlaysTheToneAtTheCardsRate) {
    card.ppm = 100;
    play(3);
    EXPECT_EQ(speaker.facts().counts.xruns, 0);
    EXPECT_NEAR(speaker.facts().latencyMs, kLatencyMs, 1);
    expectSmooth(static_cast<size_t>(GetParam() / 10));
    const size_t from = card.played.size() - static_cast<size_t>(GetParam());
    int upward = 0;
    for (size_t i = from + 1; i < card.played.size(); ++i) {
        upward += card.played[i - 1] < 0 && card.played[i] >= 0 ? 1 : 0;
    }
    EXPECT_NEAR(upward, kToneHz, 2);
}

}  // namespace
}  // namespace uafd
