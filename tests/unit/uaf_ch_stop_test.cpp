// SPDX-License-Identifier: Apache-2.0
// The channel base class's debounced stop, and the off request of a thread that a stop joins.
#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "channel/uaf_ch.h"
#include "tests/unit/channel_bench.h"

namespace uafd {
namespace {

using fake_log::kChannelLog;
using namespace channel_bench;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using UafChStopTest = channel_bench::Test;

// ---- The debounced stop ------------------------------------------------------------------------

TEST_F(UafChStopTest, TheWorkerGoesOnInEveryOtherState) {
    for (const int state : {UAFCH_RUNNING, UAFCH_STOPPED}) {
        channel.state = state;
        for (int i = 0; i < 10; ++i) {
            EXPECT_TRUE(channel.isRunning());
        }
        EXPECT_EQ(0U, channel.stopDelayCnt);
    }
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// Until then an on request can take the off back, and the stream goes on.
TEST_F(UafChStopTest, TheFourthPassAfterAnOffStopsTheChannel) {
    startAndSwitchOff();
    int stateAtStop = 0;
    std::vector<fake_log::Line> linesAtMessage;
    channel.onStop = [&] { stateAtStop = channel.state; };
    fake_ipc::onMessage() = [&](const fake_ipc::Message&) {
        journal.push_back("message");
        linesAtMessage = fake_log::lines();
    };
    for (uint32_t pass = 1; pass <= 3; ++pass) {
        EXPECT_TRUE(channel.isRunning());
        EXPECT_EQ(pass, channel.stopDelayCnt);
    }
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_FALSE(channel.isRunning());
    EXPECT_EQ(UAFCH_STOPPING, stateAtStop);
    EXPECT_THAT(linesAtMessage, IsEmpty());
    EXPECT_THAT(journal, ElementsAre("lock", "stop", "message", "unlock"));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(kOffMessage));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("UAF channel stopped. Current state is (2)\n")));
    EXPECT_EQ(UAFCH_STOPPED, channel.state);
    EXPECT_EQ(0U, channel.stopDelayCnt);
    EXPECT_TRUE(channel.joinPending);
}

// The passes are counted without the lock, as taking it would cost time in each of them.
TEST_F(UafChStopTest, AnOnThatSlipsInBeforeTheLockDoesNotSaveTheStream) {
    startAndSwitchOff();
    locks.beforeNext("lock", [this] { channel.intfUpdate(true); });
    runToStop();
    EXPECT_EQ(UAFCH_STOPPED, channel.state);
    EXPECT_EQ(0U, channel.stopDelayCnt);
    EXPECT_TRUE(channel.joinPending);
    EXPECT_THAT(journal, ElementsAre("lock", "unlock", "lock", "stop", "message 0", "unlock"));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 1, current state 2\n"),
                            kChannelLog.debug("stopDelayCnt = 4\n"),
                            kChannelLog.debug("UAF channel stopped. Current state is (1)\n"),
                            kChannelLog.error(
                                "ALERT! This should be impossible and can cause inconsistencies "
                                "in this channel's state.")));
}

// The worker runs at real-time priority: it may make any number of passes inside the cancelling
// thread's log call.
TEST_F(UafChStopTest, PassesWhileAnOnIsHandledDoNotStopTheChannel) {
    startAndSwitchOff();
    int passesLeft = 4;
    fake_log::onLine() = [&](const fake_log::Line& line) {
        for (; line == kChannelLog.debug("stopDelayCnt = 0\n") && passesLeft > 0; --passesLeft) {
            EXPECT_TRUE(channel.isRunning());
        }
    };
    EXPECT_EQ(0, channel.intfUpdate(true));
    EXPECT_EQ(0, passesLeft);
    EXPECT_EQ(UAFCH_RUNNING, channel.state);
    EXPECT_THAT(journal, ElementsAre("lock", "unlock"));
}

TEST_F(UafChStopTest, TheStopGoesOnWithoutTheLock) {
    startAndSwitchOff();
    locks.answer("lock", EDEADLK);
    runToStop();
    EXPECT_EQ(UAFCH_STOPPED, channel.state);
    EXPECT_THAT(journal, ElementsAre("lock", "stop", "message 0"));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.error(
                                "intfMutex lock failed when attempting to stop the UAFCH: 35\n"),
                            kChannelLog.debug("UAF channel stopped. Current state is (2)\n")));
}

TEST_F(UafChStopTest, TheStopReportsAFailedUnlock) {
    startAndSwitchOff();
    locks.answer("unlock", EPERM);
    runToStop();
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(kChannelLog.debug("UAF channel stopped. Current state is (2)\n"),
                    kChannelLog.error("intfMutex unlock failed after stopping the UAFCH: 1\n")));
}

// The worker stops the channel itself, and cannot join itself.
TEST_F(UafChStopTest, TheNextStartJoinsTheFinishedWorkerFirst) {
    startAndSwitchOff();
    channel.threadId = kOldWorker;
    runToStop();
    forget();
    EXPECT_EQ(0, channel.intfUpdate(true));
    EXPECT_THAT(journal, ElementsAre("lock", "start", "message 1", "join", "create", "unlock"));
    EXPECT_THAT(threads.joined, ElementsAre(kOldWorker));
    EXPECT_FALSE(channel.joinPending);
    EXPECT_EQ(threads.created.back().id, channel.threadId);
    EXPECT_EQ(UAFCH_RUNNING, channel.state);
}

TEST_F(UafChStopTest, AWorkerIsJoinedOnceOnly) {
    startAndSwitchOff();
    runToStop();
    threads.refuse(EAGAIN);
    EXPECT_EQ(-1, channel.intfUpdate(true));
    threads.refuse(0);
    forget();
    EXPECT_EQ(0, channel.intfUpdate(true));
    EXPECT_THAT(journal, ElementsAre("lock", "start", "message 1", "create", "unlock"));
}

TEST_F(UafChStopTest, TheDestructorStopsAndJoinsNothing) {
    {
        TestChannel shortLived(journal);
        shortLived.setDevName(kFifoPath, kPcmName);
        shortLived.state = UAFCH_RUNNING;
        shortLived.joinPending = true;
    }
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(UafChStopTest, TheWorkersEntryRunsTheLoop) {
    EXPECT_EQ(nullptr, UafCh::ChThread(&channel));
    EXPECT_THAT(journal, ElementsAre("loop"));
}

// ---- The off request of a thread that a stop joins ---------------------------------------------

// The stop holds the lock while it joins the requesting thread: waiting for the lock would never
// end.
TEST_F(UafChStopTest, ARequestedStopTriesTheLock) {
    start();
    EXPECT_EQ(0, channel.requestStop());
    EXPECT_EQ(UAFCH_STOPPING, channel.state);
    EXPECT_THAT(journal, ElementsAre("trylock", "unlock"));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 0, current state 1\n")));
}

TEST_F(UafChStopTest, ARequestedStopGivesUpOnceTheStopHasEndedTheWaits) {
    startAndSwitchOff();
    locks.answer("trylock", EBUSY);
    const std::atomic<int32_t> running{0};
    int pauses = 0;
    threads.onSleep = [&](long ns) {
        EXPECT_EQ(1000000, ns);
        if (++pauses == 3) {
            channel.fifo.endWaits(pthread_self(), running);
        }
        locks.answer("trylock", pauses < 10 ? EBUSY : 0);
    };
    EXPECT_EQ(0, channel.requestStop());
    EXPECT_EQ(3, pauses);
    EXPECT_EQ(UAFCH_STOPPING, channel.state);
    EXPECT_THAT(journal, Not(Contains("lock")));
    EXPECT_THAT(journal, Not(Contains("unlock")));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 0, current state 2\n")));
}

TEST_F(UafChStopTest, ARequestedStopWaitsForAShortHolder) {
    start();
    locks.answer("trylock", EBUSY);
    threads.onSleep = [&](long) { locks.answer("trylock", 0); };
    EXPECT_EQ(0, channel.requestStop());
    EXPECT_EQ(UAFCH_STOPPING, channel.state);
    EXPECT_THAT(journal, ElementsAre("trylock", "sleep", "trylock", "unlock"));
}

TEST_F(UafChStopTest, ARequestedStopGoesOnWithoutTheLock) {
    start();
    locks.answer("trylock", EINVAL);
    EXPECT_EQ(0, channel.requestStop());
    EXPECT_EQ(UAFCH_STOPPING, channel.state);
    EXPECT_THAT(journal, ElementsAre("trylock"));
    EXPECT_THAT(
        fake_log::lines(),
        Contains(kChannelLog.error("intfMutex lock failed, but best effort at this point: 22\n")));
}

TEST_F(UafChStopTest, ARequestedStopNeedsTheNames) {
    channel.setDevName(nullptr, nullptr);
    EXPECT_EQ(-1, channel.requestStop());
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 0, current state 3\n"),
                            kChannelLog.error("devName not set\n")));
}

}  // namespace
}  // namespace uafd
