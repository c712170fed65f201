// SPDX-License-Identifier: Apache-2.0
// The microphone at equal clocks: once the latency has settled, what the app speaks reaches the
// host bit for bit; before that, every sample gained or lost is accounted for.
#include <algorithm>
#include <cstdio>

#include "board/kit/mic_stream.h"
#include "board/kit/statistics.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

class Microphone : public BoardCase {
  protected:
    // Streams noise for `time` and records what arrives.
    void stream(MicStream* mic, Ns time) {
        for (Ns end = now() + time; now() < end;) {
            sleepFor(kSecond);
            mic->observe();
        }
        mic->off();
    }

    // Every frame is explained, and from the third second on the sound is a copy.
    static void expectExact(const MicStream& mic) {
        const MicRecording& explained = mic.explained();
        EXPECT_EQ(explained.count(FrameKind::kUnexplained), 0);
        EXPECT_LE(explained.count(FrameKind::kStarved), 1);
        EXPECT_LT(mic.settledAt(), 3 * kRate);
        EXPECT_GT(explained.count(FrameKind::kCopied), 16 * kRate / MicRecording::kFrame);
    }

    void report(const char* start, const MicStream& mic) {
        std::vector<Ns> settled;
        for (const MicLatency& latency : mic.latencies()) {
            if (latency.recordedAt >= mic.settledAt()) {
                settled.push_back(latency.latency);
            }
        }
        const Spread latency = spreadOf(settled);
        printf(
            "microphone: %s: start to first sample %.2f ms; settled after %.2f s, %ld frames "
            "stretched and %ld squeezed; latency then %s\n",
            start, static_cast<double>(mic.timeToSound()) / kMs,
            static_cast<double>(mic.settledAt()) / kRate,
            static_cast<long>(mic.explained().count(FrameKind::kStretched)),
            static_cast<long>(mic.explained().count(FrameKind::kSqueezed)), inMs(latency).c_str());
        RecordProperty("start_to_first_sample_us", static_cast<int>(mic.timeToSound() / 1000));
        RecordProperty("latency_us", static_cast<int>(latency.median / 1000));
        EXPECT_LT(latency.largest - latency.smallest, kMs);
        EXPECT_LT(latency.largest, 50 * kMs);
    }
};

// The stream starts with an empty FIFO: two reads of 240 samples share a block of 480, so the
// second of each pair finds too few samples and is stretched, until the latency has grown into its
// range.
TEST_F(Microphone, ReachesTheHostBitForBitOnceItHasSettled) {
    AppOptions quiet;
    quiet.speaks = false;
    start(true, quiet);
    MicStream mic(this, noise);
    app->pauseSpeaking(false);
    stream(&mic, 20 * kSecond);
    expectExact(mic);
    report("from an empty FIFO", mic);
    EXPECT_GT(mic.explained().count(FrameKind::kStretched), 0);
    EXPECT_EQ(mic.explained().count(FrameKind::kSqueezed), 0);
    EXPECT_EQ(host.counter("playback.xruns"), 0);
    EXPECT_EQ(host.counter("mic.stale"), 0);
    EXPECT_EQ(findDamage(), "");
}

// An app that never stops writing has left blocks in the FIFO; they are sent first.
TEST_F(Microphone, SettlesAfterTheBlocksThatWaitedInTheFifo) {
    start();
    MicStream mic(this, noise);
    stream(&mic, 20 * kSecond);
    expectExact(mic);
    report("from a filled FIFO", mic);
    EXPECT_EQ(findDamage(), "");
}

// The latency grows by the samples gained, as the app's and the host's time stamps show.
TEST_F(Microphone, GainsTheSamplesThatItsLatencyGrowsBy) {
    AppOptions quiet;
    quiet.speaks = false;
    start(true, quiet);
    MicStream mic(this, noise);
    app->pauseSpeaking(false);
    stream(&mic, 5 * kSecond);
    const std::vector<MicLatency> latencies = mic.latencies();
    ASSERT_FALSE(latencies.empty());
    int64_t gained = 0;
    for (const MicFrame& frame : mic.frames()) {
        gained += frame.recordedAt >= latencies.front().recordedAt ? frame.gain() : 0;
    }
    EXPECT_GT(gained, 0);
    const double grown =
        static_cast<double>(latencies.back().latency - latencies.front().latency) * kRate / kSecond;
    EXPECT_NEAR(grown, static_cast<double>(gained), 48);  // a USB frame
}

TEST_F(Microphone, CarriesTheLeftChannelAlone) {
    start();
    // The right channel is the inverse of the left: silence on the left is a right channel at -1.
    MicStream mic(this, silence);
    stream(&mic, 2 * kSecond);
    EXPECT_EQ(mic.explained().count(FrameKind::kUnexplained), 0);
    EXPECT_GT(mic.explained().frames(), kRate / MicRecording::kFrame);
}

// The app writes up to 4 ms late. The latency control loses nothing that arrives; it has settled
// when it stretches and squeezes equally often, and seldom.
TEST_F(Microphone, LosesNothingWhenTheAppJittersByFourMilliseconds) {
    constexpr int64_t settled = 2 * kRate;
    start();
    app.reset();
    AppOptions options;
    options.jitter = 4 * kMs;
    app = std::make_unique<App>(options);
    sleepFor(100 * kMs);
    MicStream mic(this, noise);
    stream(&mic, 6 * kSecond);
    EXPECT_EQ(mic.explained().count(FrameKind::kUnexplained), 0);
    EXPECT_EQ(mic.explained().count(FrameKind::kStarved), 0);
    int64_t frames = 0;
    int64_t touched = 0;
    int64_t gained = 0;
    for (const MicFrame& frame : mic.frames()) {
        if (frame.recordedAt >= settled) {
            ++frames;
            touched += frame.gain() != 0 ? 1 : 0;
            gained += frame.gain();
        }
    }
    EXPECT_GT(frames, 3 * kRate / MicRecording::kFrame);
    EXPECT_LT(touched, frames / 10);
    EXPECT_NEAR(static_cast<double>(gained), 0, 5);
    EXPECT_EQ(findDamage(), "");
}

// The host gets what waits in the FIFO, and then only silence until the app writes again.
TEST_F(Microphone, IsSilentWhileTheAppIsAndThenGoesOn) {
    constexpr int64_t waitingMax = 2 * 480;
    start();
    app->speak(noise);
    sleepFor(100 * kMs);
    app->pauseSpeaking(true);
    host.command("mic on");
    sleepFor(kSecond);
    const Samples quiet = host.takeRecording();
    EXPECT_GT(quiet.size(), size_t{kRate} * 9 / 10);
    EXPECT_LE(static_cast<int64_t>(quiet.size()) - std::count(quiet.begin(), quiet.end(), 0),
              waitingMax + waitingMax / 100);
    app->pauseSpeaking(false);
    EXPECT_TRUE(waitFor([this] {
        const Samples recorded = host.takeRecording();
        return firstSound(recorded) < recorded.size();
    }));
    host.command("mic off");
    EXPECT_EQ(findDamage(), "");
}

}  // namespace
}  // namespace uafd
