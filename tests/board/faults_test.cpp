// SPDX-License-Identifier: Apache-2.0
// The app dies, its FIFOs vanish, the sound card goes: whatever state the channels are in, the
// daemon works again after the next on event, and no thread is stuck or busy.
#include <string>
#include <unistd.h>

#include "board/kit/app_process.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

class Faults : public Scenario {
  protected:
    void SetUp() override { start(); }

    void stream() {
        bothOn();
        sleepFor(300 * kMs);
    }
    // A process that can die plays the app's part.
    void letAProcessBeTheApp() {
        app.reset();
        victim = std::make_unique<AppProcess>();
        sleepFor(100 * kMs);
    }
    void killTheApp() { victim->kill(); }
    void restartTheApp() { app = std::make_unique<App>(); }

    std::unique_ptr<AppProcess> victim;
};

// ---- The app dies ------------------------------------------------------------------------------

TEST_F(Faults, TheAppDiesWhileBothChannelsAreStopped) {
    letAProcessBeTheApp();
    killTheApp();
    expectNobodyBusy();
    restartTheApp();
}

TEST_F(Faults, TheAppDiesWhileBothChannelsRun) {
    letAProcessBeTheApp();
    stream();
    killTheApp();
    expectNobodyBusy();
    restartTheApp();
    EXPECT_GE(daemon.count("handler: 13"), 1);
    EXPECT_GE(daemon.count("closing /tmp/usbAudioFifoTx, failed to read rc=0, expect 1920"), 1);
}

TEST_F(Faults, TheAppDiesAndTheHostStopsBeforeItIsBack) {
    letAProcessBeTheApp();
    stream();
    killTheApp();
    sleepFor(100 * kMs);
    bothOff();
    expectNobodyBusy();
    restartTheApp();
}

TEST_F(Faults, TheAppDiesAndTheHostStopsAndStartsBeforeItIsBack) {
    letAProcessBeTheApp();
    stream();
    killTheApp();
    sleepFor(100 * kMs);
    bothOff();
    sleepFor(100 * kMs);
    switchBoth(true);
    expectNobodyBusy();
    restartTheApp();
}

// The app dies at each of the passes that a stop waits for.
TEST_F(Faults, TheAppDiesWhileBothChannelsAreStopping) {
    for (int delay = 0; delay <= 20; delay += 5) {
        SCOPED_TRACE(delay);
        letAProcessBeTheApp();
        bothOn();
        sleepFor(200 * kMs);
        queue(kSpeakerDirection.record, 0);
        queue(kMicDirection.record, 0);
        sleepFor(delay * kMs);
        killTheApp();
        sleepFor(100 * kMs);
        restartTheApp();
        EXPECT_EQ(findDamage(), "");
    }
}

TEST_F(Faults, ChannelsThatStartWithoutTheAppRunOnceItIsThere) {
    app.reset();
    switchBoth(true);
    expectNobodyBusy();
    restartTheApp();
}

TEST_F(Faults, AFrozenAppCostsSoundAndNothingElse) {
    letAProcessBeTheApp();
    stream();
    victim->freeze();
    expectNobodyBusy();
    victim->thaw();
    sleepFor(300 * kMs);
    killTheApp();
    restartTheApp();
}

// ---- A FIFO vanishes ---------------------------------------------------------------------------

class Fifo : public Faults, public testing::WithParamInterface<const char*> {};

TEST_P(Fifo, IsReplacedWhileBothChannelsRun) {
    stream();
    unlink(GetParam());
    app.reset();
    restartTheApp();  // makes the FIFO again
    sleepFor(300 * kMs);
}

TEST_P(Fifo, IsGoneForAWhileWhileBothChannelsRun) {
    stream();
    unlink(GetParam());
    app.reset();
    expectNobodyBusy();
    restartTheApp();
    sleepFor(300 * kMs);
}

TEST_P(Fifo, IsGoneWhenBothChannelsStart) {
    app.reset();
    unlink(GetParam());
    switchBoth(true);
    expectNobodyBusy();
    EXPECT_GE(daemon.count(std::string("failed to open ") + GetParam()), 1);
    restartTheApp();
    sleepFor(300 * kMs);
}

TEST_P(Fifo, IsGoneAndBackManyTimes) {
    for (int i = 0; i < 10; ++i) {
        SCOPED_TRACE(i);
        bothOn();
        sleepFor(i * 7 * kMs);
        unlink(GetParam());
        app.reset();
        sleepFor(i * 3 * kMs);
        bothOff();
        restartTheApp();
        ASSERT_TRUE(hasThreads(kIdleThreads));
    }
}

// An open waits on the FIFO itself until the stream's next event, even if its name is removed or
// given to another FIFO.
TEST_P(Fifo, IsRecreatedWhileTheDaemonWaitsToOpenIt) {
    stream();
    app.reset();
    sleepFor(300 * kMs);
    unlink(GetParam());
    restartTheApp();
}

// The speaker's stop waits for the app; the microphone's does not.
TEST_P(Fifo, IsRecreatedAfterTheHostHasStopped) {
    stream();
    app.reset();
    sleepFor(300 * kMs);
    bothOff();
    EXPECT_TRUE(hasThreads(kIdleThreads + 1, 100 * kMs));
    expectNobodyBusy();
    unlink(GetParam());
    restartTheApp();
}

INSTANTIATE_TEST_SUITE_P(Each, Fifo, testing::Values(kFifoRx, kFifoTx),
                         [](const auto& info) { return info.param == kFifoRx ? "Rx" : "Tx"; });

// ---- The sound card goes -----------------------------------------------------------------------

TEST_F(Faults, TheCardIsRemovedInMidStreamAndReturns) {
    stream();
    host.command("card remove");
    expectNobodyBusy();
    bothOff();
    EXPECT_TRUE(hasThreads(kIdleThreads));
    host.command("card add");
}

TEST_F(Faults, TheCardIsRemovedInMidStreamAndReturnsBeforeTheHostStops) {
    stream();
    host.command("card remove");
    sleepFor(100 * kMs);
    host.command("card add");
    sleepFor(100 * kMs);
    bothOff();
}

TEST_F(Faults, TheGadgetIsUnboundInMidStreamAndBoundElsewhere) {
    stream();
    host.command("unbind");
    expectNobodyBusy();
    EXPECT_TRUE(hasThreads(kIdleThreads));
    host.command("bind 3");
}

TEST_F(Faults, TheGadgetIsReboundInMidStreamAtOnce) {
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        bothOn();
        sleepFor(100 * kMs + i * kMs);
        host.command("unbind");
        host.command("bind");
        ASSERT_TRUE(settle());
    }
}

}  // namespace
}  // namespace uafd
