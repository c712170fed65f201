// SPDX-License-Identifier: Apache-2.0
#include "tests/board/usb_daemon/wire_case.h"

#include <fcntl.h>
#include <unistd.h>

#include "board/kit/daemon.h"
#include "board/kit/files.h"
#include "board/kit/mic_stream.h"
#include "board/kit/sound.h"

namespace uafd {

using namespace board;

namespace {

constexpr Ns kSoundTime = 150 * kMs;
constexpr Ns kLastBlock = 15 * kMs;  // until the app has written what it was about to
// Until the host takes from the daemon what the app says. What the app says earlier waits in the
// buffer, which may then have too little or too much for a moment.
constexpr Ns kMicFlows = 40 * kMs;
// When the app begins to speak, the frame buffer may drop a block, depending on the phase between
// the app's blocks and the daemon's frames. It may also run dry once, then or later.
constexpr Ns kMicSettles = 100 * kMs;
// What the app misses of a stream: it is on for 10 ms before the daemon is told, and the daemon
// holds back until the phase is right.
constexpr int64_t kMissedMax = kRate / 20;

}  // namespace

void WireCase::SetUp() {
    start(hasMicService);
    ASSERT_TRUE(app->waitForMessages(5));  // configured, two volumes, two mutes
    app->speak(noise);
    forget();
}

void WireCase::forget() {
    logMark = daemon.mark();
    messageMark = app->messages().size();
}

std::vector<uint32_t> WireCase::told(uint32_t type) const {
    std::vector<uint32_t> data;
    for (const Message& message : app->messageValues(messageMark)) {
        if (message.type == type) {
            data.push_back(message.data);
        }
    }
    return data;
}

bool WireCase::waitUntilTold(uint32_t type, uint32_t data) {
    return waitFor([&] {
        const std::vector<uint32_t> all = told(type);
        return !all.empty() && all.back() == data;
    });
}

void WireCase::switchOn(const Streams& streams) {
    if (streams.speaker) {
        host.play(noise);
    }
    if (streams.mic) {
        host.record();
    }
    ASSERT_TRUE(hasThreads(streams.threads()));
    sleepFor(100 * kMs);
}

void WireCase::switchOff() {
    host.stopPlaying();
    host.stopRecording();
}

// The next recording begins with what the app says next: the daemon reads nothing between streams.
void WireCase::emptyTheMicsFifo() {
    app->pauseSpeaking(true);
    sleepFor(kLastBlock);
    const Fd fifo = Fd::open(kFifoTx, O_RDONLY | O_NONBLOCK);
    char bytes[4096];
    while (read(fifo.get(), bytes, sizeof bytes) > 0) {
    }
}

void WireCase::expectHeard() {
    const Heard heard = app->takeHeard();
    const size_t from = firstSound(heard.left);
    const int64_t first = find(heard.left, from, render(noise, 0, kMissedMax));
    ASSERT_GE(first, 0) << "the app does not hear the beginning of what the host plays";
    const auto count = static_cast<int64_t>(heard.left.size() - from);
    EXPECT_GT(count, kRate / 10);
    EXPECT_EQ(Samples(heard.left.begin() + static_cast<std::ptrdiff_t>(from), heard.left.end()) ==
                  render(noise, first, count),
              true)
        << "the app does not hear what the host plays";
    EXPECT_EQ(heard.unequalFrames, 0);
}

void WireCase::expectSound(Ns time) {
    emptyTheMicsFifo();
    app->takeHeard();
    host.play(noise);
    MicStream mic(this, noise);
    sleepFor(kMicFlows);
    app->pauseSpeaking(false);
    sleepFor(kMicSettles);
    mic.observe();
    const int64_t unexplained = mic.explained().count(FrameKind::kUnexplained);
    EXPECT_LE(unexplained, 1);
    sleepFor(time);
    EXPECT_TRUE(hasThreads(kStreamingThreads));
    mic.observe();
    expectHeard();
    EXPECT_EQ(mic.explained().count(FrameKind::kUnexplained), unexplained);
    EXPECT_LE(mic.explained().count(FrameKind::kStarved), 1);
    EXPECT_GT(mic.explained().count(FrameKind::kCopied), 10);
    switchOff();
    EXPECT_TRUE(hasThreads(kIdleThreads));
}

void WireCase::expectNoUnknownLine() {
    const std::vector<LogLine>& lines = daemon.log();
    for (; linesSeen < lines.size(); ++linesSeen) {
        EXPECT_TRUE(isKnown(lines[linesSeen])) << lines[linesSeen].brief();
    }
}

void WireCase::expectWhole() {
    switchOff();
    ASSERT_TRUE(daemon.isRunning());
    EXPECT_TRUE(settle());
    EXPECT_TRUE(hasThreads(kIdleThreads));
    expectSound(kSoundTime);
    expectNoUnknownLine();
}

}  // namespace uafd
