// SPDX-License-Identifier: Apache-2.0
// The speaker: what the host plays reaches the app bit for bit, and how long that takes.
#include <algorithm>
#include <cstdio>
#include <optional>

#include "board/kit/host.h"
#include "board/kit/statistics.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr uint32_t kSpeaker = 1;
constexpr int64_t kPeriod = 240;

class Speaker : public BoardCase {
  protected:
    // The host plays noise from its first frame on for `time`; returns what the app heard.
    Heard play(Ns time) {
        host.command("flush speaker");
        app->takeHeard();
        const HostPlayer player(noise);
        player.fill();
        const size_t messages = app->messages().size();
        onAt = now();
        host.command("speaker on");
        sleepFor(time);
        host.command("speaker off");
        EXPECT_TRUE(waitForChannel(kSpeaker, false, messages));
        EXPECT_TRUE(hasThreads(kIdleThreads));
        return app->takeHeard();
    }

    // Returns the index of the first frame heard in the host's stream. Checks that the rest is the
    // stream, bit for bit, until the host stopped, followed only by a few silent periods.
    int64_t expectExact(const Heard& heard) {
        EXPECT_EQ(heard.unequalFrames, 0);
        const int64_t sent = host.counter("speaker.frames") - host.counter("speaker.first_frames");
        const int64_t first = find(heard.left, 0, render(noise, 0, kRate));
        EXPECT_GE(first, 0) << "what the app heard first is nowhere in what the host played";
        int64_t exact = 0;
        while (exact < static_cast<int64_t>(heard.left.size()) &&
               heard.left[static_cast<size_t>(exact)] == noise(first + exact)) {
            ++exact;
        }
        // The host stops within a period; an incomplete period is never delivered.
        EXPECT_EQ(first + exact, sent - (sent - first) % kPeriod);
        const auto tail = heard.left.begin() + exact;
        EXPECT_LE(heard.left.end() - tail, 4 * kPeriod);
        EXPECT_TRUE(std::all_of(tail, heard.left.end(), [](int16_t s) { return s == 0; }));
        return first;
    }

    // For each block that the app read: the time from its first frame on the wire to the read.
    std::vector<Ns> latencies(const Heard& heard, int64_t first) {
        const int64_t base = host.counter("speaker.first_frames") + first;
        const int64_t anchor = host.frameTime("speaker", base);
        std::vector<Ns> latencies;
        const int64_t frames = static_cast<int64_t>(heard.left.size()) - 5 * kPeriod;
        for (const HeardBlock& block : heard.blocks) {
            const int64_t index = block.firstFrame - heard.blocks.front().firstFrame;
            if (index < frames) {
                latencies.push_back(block.at - anchor - index * kSecond / kRate);
            }
        }
        return latencies;
    }

    Ns onAt = 0;
};

TEST_F(Speaker, ReachesTheAppBitForBitAfterTheHoldBack) {
    start();
    const Heard heard = play(3 * kSecond);
    const int64_t first = expectExact(heard);
    EXPECT_LT(first, 6 * kPeriod);
    const Spread latency = spreadOf(latencies(heard, first));
    const Ns firstByte = heard.blocks.front().at - onAt;
    printf("speaker: start to first byte %.2f ms; latency %s\n",
           static_cast<double>(firstByte) / kMs, inMs(latency).c_str());
    RecordProperty("start_to_first_byte_us", static_cast<int>(firstByte / 1000));
    RecordProperty("latency_us", static_cast<int>(latency.median / 1000));
    EXPECT_LT(firstByte, 40 * kMs);
    EXPECT_LT(latency.largest, 12 * kMs);
    EXPECT_EQ(host.counter("capture.xruns"), 0);
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Speaker, ReachesTheAppBitForBitWithoutAMicrophoneToSynchroniseWith) {
    start(false);
    const Heard heard = play(3 * kSecond);
    const int64_t first = expectExact(heard);
    EXPECT_EQ(daemon.count("synch startup failed"), 1);
    // Nothing is held back: only what came before the capture ran is missing.
    EXPECT_EQ(daemon.count("loopcnt 0, pcmRead 240, fifoWrite 960"), 1);
    EXPECT_LT(first, 4 * kPeriod);
}

// Each start meets another phase of the host's clock.
TEST_F(Speaker, IsExactInEveryOfManyStarts) {
    start();
    for (int i = 0; i < 25; ++i) {
        SCOPED_TRACE(i);
        sleepFor(i * kMs / 5);
        const Heard heard = play(200 * kMs);
        EXPECT_LT(expectExact(heard), 6 * kPeriod);
    }
    EXPECT_EQ(daemon.count("synch startup ok"), 25);
    EXPECT_EQ(findDamage(), "");
}

// A host that opens its stream and sends later meets the capture's 10 ms grid in any phase. In half
// of the phases one period is held back; the next one, 5 ms later, is then in the other half.
TEST_F(Speaker, HoldsBackOnePeriodInHalfOfThePhases) {
    constexpr int starts = 25;
    start();
    int held = 0;
    int written = 0;
    for (int i = 0; i < starts; ++i) {
        const size_t mark = daemon.mark();
        host.command("stall speaker 1");
        host.command("speaker on");
        sleepFor(30 * kMs + i * 2 * kMs / 5);
        host.command("stall speaker 0");
        ASSERT_TRUE(daemon.waitForLog("loopcnt 0, pcmRead #, fifoWrite 960", mark));
        written += daemon.count("loopcnt 0, pcmRead 240, fifoWrite 960", mark);
        held += daemon.count("loopcnt 0, pcmRead 480, fifoWrite 960", mark);
        host.command("speaker off");
        ASSERT_TRUE(hasThreads(kIdleThreads));
    }
    EXPECT_EQ(written + held, starts);
    EXPECT_NEAR(held, starts / 2, 4);
    EXPECT_EQ(daemon.count("synch startup ok"), starts);
}

// The host pauses: the app gets silence, and then every frame that follows.
TEST_F(Speaker, FillsAStalledStreamWithSilence) {
    start();
    const HostPlayer player(noise);
    player.fill();
    host.command("speaker on");
    sleepFor(500 * kMs);
    host.command("stall speaker 1");
    sleepFor(200 * kMs);
    host.command("stall speaker 0");
    sleepFor(500 * kMs);
    host.command("speaker off");
    ASSERT_TRUE(hasThreads(kIdleThreads));
    EXPECT_EQ(daemon.count("clear timeout, pcmStallCnt=#"), 1);
    EXPECT_EQ(findDamage(), "");
}

}  // namespace
}  // namespace uafd
