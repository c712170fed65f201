// Clocks that differ, for ten virtual minutes and with both directions on. One case a boot.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "tests/board/board_case.h"
#include "tests/board/support/host_player.h"
#include "tests/board/support/mic_stream.h"
#include "tests/board/support/statistics.h"

namespace {

using board::FrameKind;
using board::HostPlayer;
using board::kMs;
using board::kRate;
using board::kSecond;
using board::MicLatency;
using board::MicStream;
using board::MicTrace;
using board::Ns;

constexpr Ns kRun = 600 * kSecond;
constexpr Ns kLook = 5 * kSecond;
constexpr int64_t kSettledAt = 2 * kRate;  // the third second begins
constexpr Ns kWindow = 10 * kMs;
constexpr Ns kMinute = 60 * kSecond;

class Drift : public BoardCase {
  protected:
    void runAt(int ppm);
    void checkFrames(const MicStream& mic);
    void checkLatency(const MicStream& mic);
    void checkGain(const MicStream& mic, int ppm);
    void checkSpeaker(int64_t* first);
    void checkSine(int ppm);
};

// The speaker's stream, as far as it was heard by now, frame by frame.
void Drift::checkSpeaker(int64_t* next) {
    const board::Heard heard = app->takeHeard();
    if (*next < 0 && !heard.left.empty()) {
        *next = board::find(heard.left, 0, board::render(board::noise, 0, kRate));
        ASSERT_GE(*next, 0);
    }
    int64_t wrong = 0;
    for (const int16_t sample : heard.left) {
        wrong += sample != board::noise((*next)++) ? 1 : 0;
    }
    ASSERT_EQ(wrong, 0) << "before frame " << *next;
    ASSERT_EQ(heard.unequalFrames, 0);
}

void Drift::checkFrames(const MicStream& mic) {
    for (const board::MicFrame& frame : mic.frames()) {
        const bool explained = frame.kind == FrameKind::kCopied ||
                               frame.kind == FrameKind::kStretched ||
                               frame.kind == FrameKind::kSqueezed;
        ASSERT_TRUE(explained || frame.recordedAt < kSettledAt)
            << "frame of kind " << static_cast<int>(frame.kind) << " after "
            << static_cast<double>(frame.recordedAt) / kRate << " s";
    }
    EXPECT_EQ(mic.trace().count(FrameKind::kUnexplained), 0);
    EXPECT_EQ(host.counter("playback.xruns"), 0);
    EXPECT_EQ(host.counter("capture.xruns"), 0);
    EXPECT_EQ(host.counter("mic.stale"), 0);
    EXPECT_EQ(daemon.count("stream recovery from ..."), 0);
}

// Within the window from the third second on, and every minute's mean like the first full one's.
void Drift::checkLatency(const MicStream& mic) {
    std::vector<Ns> all;
    std::vector<std::vector<Ns>> minutes;
    for (const MicLatency& latency : mic.latencies()) {
        if (latency.recordedAt < kSettledAt) {
            continue;
        }
        all.push_back(latency.latency);
        const auto minute = static_cast<size_t>(latency.recordedAt / kRate * kSecond / kMinute);
        minutes.resize(std::max(minutes.size(), minute + 1));
        minutes[minute].push_back(latency.latency);
    }
    const board::Spread spread = board::spreadOf(all);
    printf("drift: microphone latency %s\n", board::inMs(spread).c_str());
    EXPECT_LT(spread.largest - spread.smallest, kWindow);
    const auto mean = [](const std::vector<Ns>& values) {
        return std::accumulate(values.begin(), values.end(), 0.0) /
               static_cast<double>(values.size());
    };
    ASSERT_GT(minutes.size(), 8U);
    const double early = mean(minutes[1]);
    const double late = mean(minutes[minutes.size() - 2]);
    printf("drift: mean latency of the second minute %.3f ms, of the last full one %.3f ms\n",
           early / kMs, late / kMs);
    EXPECT_LT(std::abs(late - early), kMs);
}

void Drift::checkGain(const MicStream& mic, int ppm) {
    int64_t gained = 0;
    int64_t first = -1;
    int64_t last = 0;
    for (const board::MicFrame& frame : mic.frames()) {
        if (frame.recordedAt < kSettledAt) {
            continue;
        }
        first = first < 0 ? frame.recordedAt : first;
        last = frame.recordedAt + MicTrace::kFrame;
        gained += frame.gain();
    }
    // The recording's length is the host's count; the app's was shorter by the drift.
    const double length = static_cast<double>(last - first);
    const double drift = length - length / (1 + ppm * 1e-6);
    printf("drift: %ld samples gained, drift %.1f\n", static_cast<long>(gained), drift);
    EXPECT_NEAR(static_cast<double>(gained), drift, static_cast<double>(MicTrace::kFrame));
}

// A click is a bend that neither the tone nor its interpolation has.
void Drift::checkSine(int ppm) {
    constexpr double hz = 997;
    app->speak(board::sine(hz));
    board::sleepFor(kSecond);
    host.takeRecording();
    board::Samples recorded;
    for (int i = 0; i < 4; ++i) {
        board::sleepFor(kLook);
        const board::Samples more = host.takeRecording();
        recorded.insert(recorded.end(), more.begin(), more.end());
    }
    const board::Samples pure = board::render(board::sine(hz), 0, kRate);
    const int bend = board::largestSecondDifference(pure, 0, pure.size());
    const int heard = board::largestSecondDifference(recorded, 0, recorded.size());
    printf("drift: largest second difference %d, of the tone itself %d, at %d ppm\n", heard, bend,
           ppm);
    // A drawn-out frame is less steep by a 240th, which bends the tone where two frames meet; a
    // pressed one is steeper. Each of the three samples is rounded.
    constexpr int slack = 16;
    EXPECT_LE(heard, bend + slack);
    const int64_t quiet = std::count(recorded.begin(), recorded.end(), 0);
    EXPECT_LT(quiet, static_cast<int64_t>(recorded.size()) / 50);
}

void Drift::runAt(int ppm) {
    start();
    host.command("ppb " + std::to_string(ppm * 1000));
    const HostPlayer player(board::noise);
    board::waitFor([&] { return player.queued() > kRate; });
    app->takeHeard();
    host.command("speaker on");
    int64_t next = -1;
    {
        micService.reset();  // its millisecond ticks would cost time for nothing
        MicStream mic(this, board::ramp);
        for (const Ns end = board::now() + kRun; board::now() < end;) {
            board::sleepFor(kLook);
            mic.observe();
            ASSERT_NO_FATAL_FAILURE(checkSpeaker(&next));
        }
        checkFrames(mic);
        checkLatency(mic);
        checkGain(mic, ppm);
    }
    EXPECT_GT(next, kRun / kSecond * kRate * 99 / 100);
    checkSine(ppm);
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Drift, HostFasterBy100Ppm) {
    runAt(100);
}

TEST_F(Drift, HostSlowerBy100Ppm) {
    runAt(-100);
}

TEST_F(Drift, HostFasterBy500Ppm) {
    runAt(500);
}

TEST_F(Drift, HostSlowerBy500Ppm) {
    runAt(-500);
}

}  // namespace
