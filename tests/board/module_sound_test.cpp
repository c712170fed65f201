// SPDX-License-Identifier: Apache-2.0
// The simulated hardware itself: how sound moves between the gadget's card and the host, exactly on
// the host's clock; and the board's own card.
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "tests/board/module_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr snd_pcm_uframes_t kPeriod = 240;
constexpr snd_pcm_uframes_t kCaptureBuffer = 2400;
constexpr snd_pcm_uframes_t kPlaybackBuffer = 720;
// From the moment when an interrupt is due until a program has woken, in virtual time.
constexpr int64_t kWakeUpNs = kMs / 2;

// 1, 2, 3 ... without a zero, so that it differs from silence.
std::vector<int16_t> ramp(size_t frames) {
    std::vector<int16_t> all(frames);
    for (size_t i = 0; i < frames; i++) {
        all[i] = static_cast<int16_t>(i % 30000 + 1);
    }
    return all;
}

// Queues frames for the host to play; returns how many fitted.
size_t play(const std::vector<int16_t>& frames) {
    const Fd speaker = Fd::open("/dev/usb_host_speaker", O_WRONLY | O_NONBLOCK);
    const ssize_t written = write(speaker.get(), frames.data(), frames.size() * sizeof(frames[0]));
    return written < 0 ? 0 : static_cast<size_t>(written) / sizeof(frames[0]);
}

std::vector<int16_t> withoutLeadingZeros(std::vector<int16_t> frames) {
    size_t zeros = 0;
    while (zeros < frames.size() && frames[zeros] == 0) {
        zeros++;
    }
    frames.erase(frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(zeros));
    return frames;
}

// How long `frames` last on the host's clock, in whole nanoseconds of the board's clock.
int64_t hostTimeNs(int64_t frames, int64_t ppb) {
    const __int128 parts = 1000000000;
    const __int128 usbFrames = frames / kFramesPerUsbFrame;
    return static_cast<int64_t>(usbFrames * kMs * parts / (parts + ppb));
}

class RunningCapture : public Pcm {
  public:
    RunningCapture() : Pcm(SND_PCM_STREAM_CAPTURE) {
        EXPECT_EQ(setUp(kCaptureBuffer, kPeriod), "");
        EXPECT_EQ(start(), 0);
    }
};

class Sound : public ModuleCase {};

TEST_F(Sound, GrantsTheSizesThatADaemonAsksFor) {
    Notes log(*this);
    {
        Pcm capture(SND_PCM_STREAM_CAPTURE);
        EXPECT_EQ(capture.setUp(kCaptureBuffer, kPeriod), "");
        Pcm playback(SND_PCM_STREAM_PLAYBACK);
        EXPECT_EQ(playback.setUp(kPlaybackBuffer, kPeriod), "");
        EXPECT_EQ(capture.rate, 48000U);
    }
    EXPECT_THAT(log.texts(),
                ElementsAre("capture open 0",
                            "capture hw_params 0 rate=48000 channels=1 period=240 buffer=2400",
                            "capture prepare 0", "playback open 0",
                            "playback hw_params 0 rate=48000 channels=1 period=240 buffer=720",
                            "playback prepare 0", "playback close", "capture close"));
}

TEST_F(Sound, CapturesWhatTheHostPlaysFrameByFrame) {
    const std::vector<int16_t> played = ramp(96000);
    ASSERT_EQ(play(played), played.size());
    RunningCapture capture;
    command("speaker on");
    std::vector<int16_t> captured;
    std::vector<int16_t> period(kPeriod);
    while (captured.size() < played.size()) {
        ASSERT_EQ(capture.read(period), static_cast<snd_pcm_sframes_t>(kPeriod));
        captured.insert(captured.end(), period.begin(), period.end());
    }
    EXPECT_TRUE(captured == played);
    EXPECT_EQ(counter("capture.periods"), counter("speaker.frames") / 240);
}

TEST_F(Sound, RecordsWhatIsPlayedFrameByFrame) {
    const std::vector<int16_t> written = ramp(48000);
    Pcm playback(SND_PCM_STREAM_PLAYBACK);
    ASSERT_EQ(playback.setUp(kPlaybackBuffer, kPeriod), "");
    command("mic on");
    const int64_t stale = counter("mic.stale");
    for (size_t at = 0; at < written.size(); at += kPeriod) {
        const auto from = written.begin() + static_cast<std::ptrdiff_t>(at);
        ASSERT_EQ(playback.write({from, from + kPeriod}), static_cast<snd_pcm_sframes_t>(kPeriod));
    }
    EXPECT_EQ(counter("mic.stale"), stale);
    // The ring's contents still have to be played; nothing may come after them.
    ASSERT_TRUE(waitFor([this] { return counter("mic.stale") > 0; }));
    std::vector<int16_t> recorded = withoutLeadingZeros(host->takeRecording());
    ASSERT_GE(recorded.size(), written.size());
    recorded.resize(written.size());
    EXPECT_TRUE(recorded == written);
}

TEST_F(Sound, TellsTheFrameWithWhichAPlaybackStarted) {
    command("flush mic");
    command("mic on");
    const int64_t begin = counter("mic.on_frames");
    ASSERT_TRUE(waitFor([&] { return counter("mic.frames") > begin + 4800; }));
    Pcm playback(SND_PCM_STREAM_PLAYBACK);
    ASSERT_EQ(playback.setUp(kPlaybackBuffer, kPeriod), "");
    ASSERT_EQ(playback.write(std::vector<int16_t>(kPeriod, 1)),
              static_cast<snd_pcm_sframes_t>(kPeriod));
    const int64_t start = counter("mic.start_frames");
    ASSERT_TRUE(waitFor([&] { return counter("mic.frames") > start; }));
    const std::vector<int16_t> recorded = host->takeRecording();
    ASSERT_GT(static_cast<int64_t>(recorded.size()), start - begin);
    EXPECT_EQ(recorded[static_cast<size_t>(start - begin)], 1);
    EXPECT_EQ(recorded[static_cast<size_t>(start - begin - 1)], 0);
}

TEST_F(Sound, PlaysTheRingAgainAndCountsItWhenTheProgramIsLate) {
    Pcm playback(SND_PCM_STREAM_PLAYBACK);
    ASSERT_EQ(playback.setUp(kPlaybackBuffer, kPeriod, 2 * kPlaybackBuffer), "");
    const int64_t stale = counter("mic.stale");
    ASSERT_EQ(playback.write(ramp(kPlaybackBuffer)),
              static_cast<snd_pcm_sframes_t>(kPlaybackBuffer));
    command("mic on");
    ASSERT_TRUE(waitFor([&] { return playback.state() == SND_PCM_STATE_XRUN; }));
    EXPECT_EQ(counter("mic.stale") - stale, static_cast<int64_t>(kPlaybackBuffer));
    std::vector<int16_t> twice = ramp(kPlaybackBuffer);
    const std::vector<int16_t> once = twice;
    twice.insert(twice.end(), once.begin(), once.end());
    std::vector<int16_t> recorded = withoutLeadingZeros(host->takeRecording());
    ASSERT_GE(recorded.size(), twice.size());
    EXPECT_THAT(std::vector<int16_t>(recorded.begin() + 1440, recorded.end()), Each(0));
    recorded.resize(twice.size());
    EXPECT_EQ(recorded, twice);
}

TEST_F(Sound, SendsZerosAndLosesFramesLikeARealHost) {
    ASSERT_EQ(play(ramp(480)), 480U);
    const int64_t dry = counter("speaker.dry");
    const int64_t silent = counter("speaker.silent");
    const int64_t lost = counter("speaker.lost");
    const int64_t frames = counter("speaker.frames");
    command("speaker on");
    sleepFor(100 * kMs);
    command("speaker off");
    const int64_t sent = counter("speaker.frames") - frames;
    EXPECT_GE(sent, 99 * 48);
    EXPECT_EQ(counter("speaker.dry") - dry, 1);
    EXPECT_EQ(counter("speaker.silent") - silent, sent - 480);
    EXPECT_EQ(counter("speaker.lost") - lost, sent);
    EXPECT_EQ(counter("speaker.queued"), 0);
}

TEST_F(Sound, RecordsZerosWhileNothingIsPlayed) {
    const int64_t silent = counter("mic.silent");
    command("mic on");
    sleepFor(100 * kMs);
    command("mic off");
    const std::vector<int16_t> recorded = host->takeRecording();
    EXPECT_GE(recorded.size(), 99U * 48);
    EXPECT_THAT(recorded, Each(0));
    EXPECT_EQ(counter("mic.silent") - silent, static_cast<int64_t>(recorded.size()));
}

TEST_F(Sound, KeepsABoundedRecordingAndCountsTheRest) {
    const int64_t dropped = counter("mic.dropped");
    command("mic on");
    sleepFor(50 * kSecond);
    command("mic off");
    EXPECT_EQ(host->takeRecording().size(), 2097152U / 48 * 48);
    EXPECT_EQ(counter("mic.dropped") - dropped,
              counter("mic.frames") - counter("mic.on_frames") - 2097152 / 48 * 48);
}

TEST_F(Sound, MakesTheHostsProgramsWaitWithoutFollowingEveryUsbFrame) {
    const int mic = open("/dev/usb_host_mic", O_RDONLY | O_CLOEXEC);
    const int speaker = open("/dev/usb_host_speaker", O_WRONLY | O_CLOEXEC);
    std::vector<int16_t> frames(262144);
    const size_t all = frames.size() * sizeof(frames[0]);
    EXPECT_EQ(write(speaker, frames.data(), all), static_cast<ssize_t>(all));
    EXPECT_EQ(play({1}), 0U);
    command("mic on");
    command("speaker on");
    const int64_t start = now();
    EXPECT_EQ(read(mic, frames.data(), all), 480 * 2);
    EXPECT_LT(now() - start - 10 * kMs, kMs);
    // What fits is taken at once; the rest waits until there is room for 100 ms.
    EXPECT_EQ(write(speaker, frames.data(), all), 480 * 2);
    EXPECT_EQ(write(speaker, frames.data(), all), 4800 * 2);
    EXPECT_LT(now() - start - 110 * kMs, kMs);
    pollfd pollers[] = {{mic, POLLIN, 0}, {speaker, POLLOUT, 0}};
    EXPECT_EQ(poll(pollers, 2, 0), 1);
    EXPECT_EQ(poll(pollers + 1, 1, 99), 0);
    EXPECT_EQ(poll(pollers + 1, 1, 2), 1);
    close(speaker);
    close(mic);
}

TEST_F(Sound, StandsStillWhileTheHostsStreamIsOffOrStalled) {
    RunningCapture capture;
    EXPECT_EQ(snd_pcm_wait(capture.get(), 50), 0);
    command("speaker on");
    EXPECT_EQ(snd_pcm_wait(capture.get(), 50), 1);
    command("stall speaker 1");
    const snd_pcm_sframes_t avail = snd_pcm_avail(capture.get());
    EXPECT_EQ(avail % kFramesPerUsbFrame, 0);
    sleepFor(50 * kMs);
    EXPECT_EQ(snd_pcm_avail(capture.get()), avail);
    command("stall speaker 0");
    EXPECT_TRUE(waitFor([&] { return snd_pcm_avail(capture.get()) > avail; }));
    EXPECT_EQ(capture.state(), SND_PCM_STATE_RUNNING);
}

TEST_F(Sound, FollowsAClockThatIsExactAtEveryOffset) {
    for (const int64_t ppb : {0, 1, -1, 333, 20000, -100000, 500000, -1000000, 1000000, 99999999}) {
        command("ppb " + std::to_string(ppb));
        command("mic on");
        sleepFor(10 * kSecond);
        const int64_t readAt = now();
        command("mic off");
        const int64_t frames = counter("mic.frames") - counter("mic.on_frames");
        const int64_t lasted = counter("mic.last_ns") - counter("mic.on_ns");
        EXPECT_EQ(lasted, hostTimeNs(frames, ppb)) << ppb;
        EXPECT_LT(readAt - counter("mic.last_ns"), 2 * kMs) << ppb;
        EXPECT_EQ(host->takeRecording().size(), static_cast<size_t>(frames)) << ppb;
        // This lets the clock stop, so that the next stream starts it from the beginning.
        sleepFor(5 * kMs);
    }
}

TEST_F(Sound, ChangesItsClockWhileStreamsRun) {
    command("speaker on");
    sleepFor(kSecond);
    command("ppb 1000000");
    const int64_t startNs = counter("speaker.last_ns");
    const int64_t startFrames = counter("speaker.frames");
    sleepFor(10 * kSecond);
    const int64_t frames = counter("speaker.frames") - startFrames;
    const int64_t lasted = counter("speaker.last_ns") - startNs;
    // The USB frame in progress keeps its length; the change shows at most a microsecond later.
    EXPECT_NEAR(static_cast<double>(lasted), static_cast<double>(hostTimeNs(frames, 1000000)),
                1000);
    EXPECT_GE(frames, 10009 * 48);
}

TEST_F(Sound, TellsWhenEachFrameMoved) {
    RunningCapture capture;
    command("speaker on");
    sleepFor(3 * kMs);
    ASSERT_EQ(play(ramp(4800)), 4800U);
    std::vector<int16_t> period(kPeriod);
    for (int i = 1; i <= 10; i++) {
        ASSERT_EQ(capture.read(period), static_cast<snd_pcm_sframes_t>(kPeriod));
        const int64_t late = now() - counter("speaker.on_ns") - i * 5 * kMs;
        EXPECT_GE(late, 0);
        EXPECT_LT(late, kWakeUpNs);
    }
    EXPECT_EQ(counter("speaker.first_ns") - counter("speaker.on_ns"),
              hostTimeNs(counter("speaker.first_frames") - counter("speaker.on_frames") + 48, 0));
}

TEST_F(Sound, MovesBothDirectionsInTheSameUsbFrames) {
    command("speaker on");
    sleepFor(7 * kMs + kMs / 3);
    command("mic on");
    sleepFor(100 * kMs);
    command("stall speaker 1");
    command("stall mic 1");
    EXPECT_EQ((counter("speaker.last_ns") - counter("mic.on_ns")) % kMs, 0);
}

constexpr char kStatus[] = "/proc/asound/card0/pcm0c/sub0/status";

std::string statusLine(const std::string& key) {
    const std::string status = contents(kStatus);
    const size_t at = status.find(key);
    return at == std::string::npos ? status : status.substr(at, status.find('\n', at) - at);
}

void enableTimeStamps(const Pcm& pcm) {
    snd_pcm_sw_params_t* sw;
    snd_pcm_sw_params_alloca(&sw);
    snd_pcm_sw_params_current(pcm.get(), sw);
    snd_pcm_sw_params_set_tstamp_mode(pcm.get(), sw, SND_PCM_TSTAMP_ENABLE);
    snd_pcm_sw_params_set_tstamp_type(pcm.get(), sw, SND_PCM_TSTAMP_TYPE_GETTIMEOFDAY);
    ASSERT_EQ(snd_pcm_sw_params(pcm.get(), sw), 0);
}

TEST_F(Sound, ComesFromABoardWithAMicrophoneThatMovesEveryMillisecond) {
    EXPECT_EQ(contents("/proc/asound/card0/id"), "rockchiprt5640c\n");
    EXPECT_EQ(contents(kStatus), "closed\n");
    Pcm mic(SND_PCM_STREAM_CAPTURE, "hw:0");
    ASSERT_EQ(mic.setUp(4800, 480), "");
    enableTimeStamps(mic);
    ASSERT_EQ(mic.start(), 0);
    sleepFor(5 * kMs + kMs / 2);
    EXPECT_THAT(contents(kStatus), HasSubstr("state: RUNNING"));
    const std::string first = statusLine("tstamp ");
    EXPECT_THAT(first, HasSubstr(": 17672"));  // seconds since 1970, early in 2026
    EXPECT_EQ(statusLine("hw_ptr"), "hw_ptr      : 240");
    sleepFor(kMs);
    EXPECT_NE(statusLine("tstamp "), first);
    EXPECT_EQ(statusLine("hw_ptr"), "hw_ptr      : 288");
    std::vector<int16_t> frames(480, 1);
    EXPECT_EQ(mic.read(frames), 480);
    EXPECT_THAT(frames, Each(0));
}

}  // namespace
}  // namespace uafd
