// SPDX-License-Identifier: Apache-2.0
// The app dies, its FIFOs vanish, the sound card goes: whatever state the channels are in, the
// daemon works again after the next on event, and no thread is stuck or busy.
#include <string>
#include <unistd.h>

#include "board/kit/app_process.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using board::App;
using board::AppProcess;
using board::kMs;
using board::kSecond;

constexpr int kSpeakerRecord = 2;
constexpr int kMicRecord = 3;

class Faults : public BoardCase {
  protected:
    void SetUp() override { start(); }

    // A process that can die plays the app's part.
    void letAProcessBeTheApp() {
        app.reset();
        victim = std::make_unique<AppProcess>();
        board::sleepFor(100 * kMs);
    }
    void killTheApp() { victim->kill(); }
    void restartTheApp() { app = std::make_unique<App>(); }

    void bothOff() {
        host.command("speaker off");
        host.command("mic off");
    }

    // While something is wrong the daemon uses only a small part of a second's processor time.
    void expectNobodyBusy() {
        const board::Ns before = board::cpuOf(daemon.pid());
        board::sleepFor(kSecond);
        EXPECT_LT(board::cpuOf(daemon.pid()) - before, 200 * kMs);
    }

    std::unique_ptr<AppProcess> victim;
};

// ---- The app dies ------------------------------------------------------------------------------

TEST_F(Faults, TheAppDiesWhileBothChannelsAreStopped) {
    letAProcessBeTheApp();
    killTheApp();
    expectNobodyBusy();
    restartTheApp();
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Faults, TheAppDiesWhileBothChannelsRun) {
    letAProcessBeTheApp();
    bothOn();
    board::sleepFor(300 * kMs);
    killTheApp();
    expectNobodyBusy();
    restartTheApp();
    EXPECT_EQ(findDamage(), "");
    EXPECT_GE(daemon.count("handler: 13"), 1);
    EXPECT_GE(daemon.count("closing /tmp/usbAudioFifoTx, failed to read rc=0, expect 1920"), 1);
}

TEST_F(Faults, TheAppDiesAndTheHostStopsBeforeItIsBack) {
    letAProcessBeTheApp();
    bothOn();
    board::sleepFor(300 * kMs);
    killTheApp();
    board::sleepFor(100 * kMs);
    bothOff();
    expectNobodyBusy();
    restartTheApp();
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Faults, TheAppDiesAndTheHostStopsAndStartsBeforeItIsBack) {
    letAProcessBeTheApp();
    bothOn();
    board::sleepFor(300 * kMs);
    killTheApp();
    board::sleepFor(100 * kMs);
    bothOff();
    board::sleepFor(100 * kMs);
    host.command("speaker on");
    host.command("mic on");
    expectNobodyBusy();
    restartTheApp();
    EXPECT_EQ(findDamage(), "");
}

// The app dies at each of the passes that a stop waits for.
TEST_F(Faults, TheAppDiesWhileBothChannelsAreStopping) {
    for (int delay = 0; delay <= 20; delay += 5) {
        SCOPED_TRACE(delay);
        letAProcessBeTheApp();
        bothOn();
        board::sleepFor(200 * kMs);
        host.command("record " + std::to_string(kSpeakerRecord) + " 0");
        host.command("record " + std::to_string(kMicRecord) + " 0");
        board::sleepFor(delay * kMs);
        killTheApp();
        board::sleepFor(100 * kMs);
        restartTheApp();
        EXPECT_EQ(findDamage(), "");
    }
}

TEST_F(Faults, ChannelsThatStartWithoutTheAppRunOnceItIsThere) {
    app.reset();
    host.command("speaker on");
    host.command("mic on");
    expectNobodyBusy();
    restartTheApp();
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Faults, AFrozenAppCostsSoundAndNothingElse) {
    letAProcessBeTheApp();
    bothOn();
    board::sleepFor(300 * kMs);
    victim->freeze();
    expectNobodyBusy();
    victim->thaw();
    board::sleepFor(300 * kMs);
    killTheApp();
    restartTheApp();
    EXPECT_EQ(findDamage(), "");
}

// ---- A FIFO vanishes ---------------------------------------------------------------------------

class Fifo : public Faults, public testing::WithParamInterface<const char*> {};

TEST_P(Fifo, IsReplacedWhileBothChannelsRun) {
    bothOn();
    board::sleepFor(300 * kMs);
    unlink(GetParam());
    app.reset();
    restartTheApp();  // makes the FIFO again
    board::sleepFor(300 * kMs);
    EXPECT_EQ(findDamage(), "");
}

TEST_P(Fifo, IsGoneForAWhileWhileBothChannelsRun) {
    bothOn();
    board::sleepFor(300 * kMs);
    unlink(GetParam());
    app.reset();
    expectNobodyBusy();
    restartTheApp();
    board::sleepFor(300 * kMs);
    EXPECT_EQ(findDamage(), "");
}

TEST_P(Fifo, IsGoneWhenBothChannelsStart) {
    app.reset();
    unlink(GetParam());
    host.command("speaker on");
    host.command("mic on");
    expectNobodyBusy();
    EXPECT_GE(daemon.count(std::string("failed to open ") + GetParam()), 1);
    restartTheApp();
    board::sleepFor(300 * kMs);
    EXPECT_EQ(findDamage(), "");
}

TEST_P(Fifo, IsGoneAndBackManyTimes) {
    for (int i = 0; i < 10; ++i) {
        SCOPED_TRACE(i);
        bothOn();
        board::sleepFor(i * 7 * kMs);
        unlink(GetParam());
        app.reset();
        board::sleepFor(i * 3 * kMs);
        bothOff();
        restartTheApp();
        ASSERT_TRUE(hasThreads(board::kIdleThreads));
    }
    EXPECT_EQ(findDamage(), "");
}

// An open waits on the FIFO itself until the stream's next event, even if its name is removed or
// given to another FIFO.
TEST_P(Fifo, IsRecreatedWhileTheDaemonWaitsToOpenIt) {
    bothOn();
    board::sleepFor(300 * kMs);
    app.reset();
    board::sleepFor(300 * kMs);
    unlink(GetParam());
    restartTheApp();
    EXPECT_EQ(findDamage(), "");
}

// The speaker's stop waits for the app; the microphone's does not.
TEST_P(Fifo, IsRecreatedAfterTheHostHasStopped) {
    bothOn();
    board::sleepFor(300 * kMs);
    app.reset();
    board::sleepFor(300 * kMs);
    bothOff();
    EXPECT_TRUE(hasThreads(board::kIdleThreads + 1, 100 * kMs));
    expectNobodyBusy();
    unlink(GetParam());
    restartTheApp();
    EXPECT_EQ(findDamage(), "");
}

INSTANTIATE_TEST_SUITE_P(Each, Fifo, testing::Values(board::kFifoRx, board::kFifoTx),
                         [](const auto& info) {
                             return info.param == board::kFifoRx ? "Rx" : "Tx";
                         });

// ---- The sound card goes -----------------------------------------------------------------------

TEST_F(Faults, TheCardIsRemovedInMidStreamAndReturns) {
    bothOn();
    board::sleepFor(300 * kMs);
    host.command("card remove");
    expectNobodyBusy();
    bothOff();
    EXPECT_TRUE(hasThreads(board::kIdleThreads));
    host.command("card add");
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Faults, TheCardIsRemovedInMidStreamAndReturnsBeforeTheHostStops) {
    bothOn();
    board::sleepFor(300 * kMs);
    host.command("card remove");
    board::sleepFor(100 * kMs);
    host.command("card add");
    board::sleepFor(100 * kMs);
    bothOff();
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Faults, TheGadgetIsUnboundInMidStreamAndBoundElsewhere) {
    bothOn();
    board::sleepFor(300 * kMs);
    host.command("unbind");
    expectNobodyBusy();
    EXPECT_TRUE(hasThreads(board::kIdleThreads));
    host.command("bind 3");
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Faults, TheGadgetIsReboundInMidStreamAtOnce) {
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        bothOn();
        board::sleepFor(100 * kMs + i * kMs);
        host.command("unbind");
        host.command("bind");
        ASSERT_TRUE(settle());
    }
    EXPECT_EQ(findDamage(), "");
}

}  // namespace
}  // namespace uafd
