// SPDX-License-Identifier: Apache-2.0
// The app is away while the host records: silent, dead, or stopped. The daemon still does what the
// host wants, and in time: it handles each record within 50 ms and stops the microphone within 40
// ms of the off event. Only the speaker's stop waits for the app.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "board/kit/app_process.h"
#include "board/kit/host.h"
#include "board/kit/mic_recording.h"
#include "board/kit/record_watch.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr Ns kHandled = 50 * kMs;
constexpr Ns kStopped = 42 * kMs;  // four passes, up to 10 ms each, and the threads

class AwayApp : public Scenario {
  protected:
    // The test receives the app's messages: they show when a stream stopped, whatever the app does.
    void SetUp() override {
        start();
        app.reset();
        messageSocket.emplace();
        player.emplace(ramp);
        watch.emplace(&host);
    }

    void startApp(bool speaks = true) {
        AppOptions options;
        options.socket = false;
        options.speaks = speaks;
        process = std::make_unique<AppProcess>(options);
    }

    // Returns true as soon as the message is there, false after the limit.
    bool isTold(Message wanted, Ns limit) {
        return waitFor(
            [&] {
                const std::vector<Message> messages = messageSocket->take();
                return std::find(messages.begin(), messages.end(), wanted) != messages.end();
            },
            limit);
    }
    // The host does something, and the app must be told in time.
    void expectToldInTime(const char* command, Message wanted, Ns limit) {
        SCOPED_TRACE(command);
        messageSocket->take();
        host.command(command);
        watch->probe();
        EXPECT_TRUE(isTold(wanted, limit));
        expectPrompt();
    }
    // Every record so far was handled in time.
    void expectPrompt() {
        sleepFor(kHandled);
        watch->look();
        EXPECT_LE(watch->wait().time, kHandled) << watch->wait().text();
        EXPECT_LE(watch->micStop().time, kStopped) << watch->micStop().text();
    }

    // Does everything that the host may do meanwhile.
    void hostGoesOn() {
        sleepFor(200 * kMs);  // until everything that can wait for the app waits
        expectToldInTime("mic off", {kMic, 0}, kStopped);
        expectToldInTime("volume speaker 7", {3, 7}, kHandled);
        expectToldInTime("mic on", {kMic, 1}, kHandled);
        bothOff();
        expectToldInTime("mute speaker 1", {5, 1}, kHandled);
        bothOn();
        expectToldInTime("unbind", {kMic, 0}, kStopped);
        host.command("bind");
        expectToldInTime("mic on", {kMic, 1}, kHandled);
    }

    // The app is back: the speaker's stop, which the unbind began, ends now, and both directions
    // stream without losing a frame.
    void expectBothStream() {
        ASSERT_TRUE(waitFor(
            [this] { return host.counter("capture.opens") == host.counter("capture.closes"); }));
        host.command("speaker on");
        ASSERT_TRUE(hasThreads(kStreamingThreads));
        ASSERT_TRUE(hostHears());
        sleepFor(kSecond);
        const int64_t jumps = process->heardJumps();
        const int64_t heard = process->heardSound();
        expectEachFrameIsTheApps(kSecond);
        EXPECT_EQ(process->heardJumps(), jumps);
        EXPECT_GE(process->heardSound(), heard + kRate * 9 / 10);
        expectPrompt();
    }
    void expectEachFrameIsTheApps(Ns time) {
        host.takeRecording();
        const auto values = host.counters();
        const int64_t into =
            (values.at("mic.frames") - values.at("mic.queued") - values.at("mic.start_frames")) %
            MicRecording::kFrame;
        sleepFor(time);
        Samples recorded = host.takeRecording();
        recorded.erase(recorded.begin(), recorded.begin() + (MicRecording::kFrame - into));
        MicRecording explained(noise);
        explained.add(recorded);
        EXPECT_EQ(explained.count(FrameKind::kUnexplained), 1);  // where the search starts
        EXPECT_EQ(explained.count(FrameKind::kStarved), 0);
        EXPECT_EQ(explained.count(FrameKind::kSilent), 0);
        EXPECT_GT(explained.frames(), time / (5 * kMs) * 9 / 10);
    }
    // Puts back the app with which the daemon is proved whole.
    void TearDown() override {
        if (HasFatalFailure()) {
            return;
        }
        printf("longest wait of a record %s, longest stop of the microphone %s\n",
               watch->wait().text().c_str(), watch->micStop().text().c_str());
        process.reset();
        player.reset();
        messageSocket.reset();
        app = std::make_unique<App>();
        Scenario::TearDown();
    }

    std::optional<MessageSocket> messageSocket;
    std::optional<HostPlayer> player;
    std::optional<RecordWatch> watch;
    std::unique_ptr<AppProcess> process;
};

// Like any app that only records, it opens the microphone's FIFO and writes nothing.
TEST_F(AwayApp, OnlyRecords) {
    startApp(false);
    bothOn();
    ASSERT_TRUE(daemon.waitForLog(std::string(kFifoTx) + " opened buffer size #"));
    hostGoesOn();
    process->pauseSpeaking(false);
    expectBothStream();
}

TEST_F(AwayApp, IsKilled) {
    startApp();
    bothOn();
    ASSERT_TRUE(hostHears());
    process->kill();
    hostGoesOn();
    startApp();
    expectBothStream();
}

TEST_F(AwayApp, IsStopped) {
    startApp();
    bothOn();
    ASSERT_TRUE(hostHears());
    process->freeze();
    hostGoesOn();
    process->thaw();
    expectBothStream();
}

}  // namespace
}  // namespace uafd
