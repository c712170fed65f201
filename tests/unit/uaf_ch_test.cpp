// SPDX-License-Identifier: Apache-2.0
// The channel base class: names, and on and off requests in every state.
#include "channel/uaf_ch.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/channel_bench.h"

namespace uafd {
namespace {

using fake_log::kChannelLog;
using namespace channel_bench;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using UafChTest = channel_bench::Test;

// ---- Construction and names --------------------------------------------------------------------

// The numbers appear in the log.
TEST_F(UafChTest, StatesHaveTheirFixedNumbers) {
    EXPECT_EQ(1, UAFCH_RUNNING);
    EXPECT_EQ(2, UAFCH_STOPPING);
    EXPECT_EQ(3, UAFCH_STOPPED);
}

TEST_F(UafChTest, StartsStoppedWithNothingOpen) {
    const TestChannel fresh(journal);
    EXPECT_EQ(UAFCH_STOPPED, fresh.state);
    EXPECT_EQ(0U, fresh.stopDelayCnt);
    EXPECT_FALSE(fresh.joinPending);
    EXPECT_EQ(nullptr, fresh.pcmHandle);
    EXPECT_FALSE(fresh.fifo.isOpen());
    EXPECT_EQ(nullptr, fresh.fifoName.load());
    EXPECT_EQ(nullptr, fresh.pcmName.load());
    EXPECT_EQ(nullptr, fresh.pcmStatus);
    EXPECT_EQ(0, fresh.pcmStallCnt);
    EXPECT_EQ(7U, fresh.msgType);
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(UafChTest, GoesOnWithoutAMutex) {
    fake_sys::hooks().pthread_mutex_init = [](pthread_mutex_t*, const pthread_mutexattr_t* given) {
        EXPECT_EQ(nullptr, given);
        return ENOMEM;
    };
    const TestChannel fresh(journal);
    EXPECT_EQ(UAFCH_STOPPED, fresh.state);
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.error("pthread_mutex_init for intfMutex failed\n")));
}

TEST_F(UafChTest, KeepsCopiesOfBothNamesWithoutALock) {
    char fifo[] = "/tmp/fifo";
    char pcm[] = "hw:3";
    EXPECT_EQ(0, channel.setDevName(fifo, pcm));
    fifo[0] = pcm[0] = 'X';
    EXPECT_STREQ("/tmp/fifo", channel.fifoName.load());
    EXPECT_STREQ("hw:3", channel.pcmName.load());
    EXPECT_THAT(journal, IsEmpty());
}

TEST_F(UafChTest, NullArgumentsUnsetNames) {
    EXPECT_EQ(0, channel.setDevName(nullptr, kPcmName));
    EXPECT_EQ(nullptr, channel.fifoName.load());
    EXPECT_STREQ(kPcmName, channel.pcmName.load());
    EXPECT_EQ(0, channel.setDevName(kFifoPath, nullptr));
    EXPECT_STREQ(kFifoPath, channel.fifoName.load());
    EXPECT_EQ(nullptr, channel.pcmName.load());
    EXPECT_EQ(0, channel.setDevName(nullptr, nullptr));
    EXPECT_EQ(nullptr, channel.fifoName.load());
    EXPECT_EQ(nullptr, channel.pcmName.load());
}

// Threads read the names without a lock.
TEST_F(UafChTest, ReplacedNamesAreFreedOnceNoThreadReadsThem) {
    const void* const first = channel.fifoName.load();
    bool freed = false;
    fake_sys::hooks().free = [&](void* memory) {
        freed = freed || (memory == first && memory != nullptr);
        fake_sys::real::free(memory);
    };
    start();
    channel.setDevName(nullptr, nullptr);
    channel.setDevName(kFifoPath, kPcmName);
    EXPECT_FALSE(freed);
    EXPECT_STREQ(kFifoPath, static_cast<const char*>(first));
    channel.intfUpdate(false);
    runToStop();
    EXPECT_FALSE(freed);
    channel.setDevName(nullptr, nullptr);
    EXPECT_TRUE(freed);
}

// A cable that comes and goes, or a control device whose reads fail after a bind, may do this for
// months while an app keeps the worker waiting.
TEST_F(UafChTest, AMillionBindsUnderALivingThreadTakeNoMemory) {
    start();
    int blocks = 0;
    fake_sys::hooks().malloc = [&](size_t size) {
        ++blocks;
        return fake_sys::real::malloc(size);
    };
    fake_sys::hooks().strdup = [&](const char* text) {
        ++blocks;
        return fake_sys::real::strdup(text);
    };
    fake_sys::hooks().free = [&](void* memory) {
        blocks -= memory != nullptr ? 1 : 0;
        fake_sys::real::free(memory);
    };
    constexpr int binds = 1000000;
    for (int i = 0; i < binds; ++i) {
        channel.setDevName(kFifoPath, i % 4 == 0 ? "hw:2" : kPcmName);
        if (i % 8 == 0) {
            channel.setDevName(nullptr, nullptr);
        }
    }
    EXPECT_EQ(2, blocks);  // only the other card's name is new
    EXPECT_STREQ(kFifoPath, channel.fifoName.load());
    EXPECT_STREQ(kPcmName, channel.pcmName.load());
}

TEST_F(UafChTest, NamesAreFreedAtOnceAfterAStartWithoutAThread) {
    threads.refuse(EAGAIN);
    EXPECT_EQ(-1, channel.intfUpdate(true));
    const void* const first = channel.pcmName.load();
    bool freed = false;
    fake_sys::hooks().free = [&](void* memory) {
        freed = freed || memory == first;
        fake_sys::real::free(memory);
    };
    channel.setDevName(kFifoPath, kPcmName);
    EXPECT_TRUE(freed);
}

TEST_F(UafChTest, RefusesRequestsWhileANameIsUnset) {
    const auto refuses = [this](const char* fifo, const char* pcm, bool on) {
        channel.setDevName(fifo, pcm);
        forget();
        EXPECT_EQ(-1, channel.intfUpdate(on));
        EXPECT_EQ(UAFCH_STOPPED, channel.state);
        EXPECT_THAT(journal, IsEmpty());
        EXPECT_THAT(fake_log::lines(),
                    ElementsAre(kChannelLog.debug(std::string("intfUpdate to ") + (on ? "1" : "0") +
                                                  ", current state 3\n"),
                                kChannelLog.error("devName not set\n")));
    };
    for (const bool on : {true, false}) {
        refuses(nullptr, nullptr, on);
        refuses(kFifoPath, nullptr, on);
        refuses(nullptr, kPcmName, on);
    }
}

TEST_F(UafChTest, ANameWithoutMemoryIsUnset) {
    fake_sys::hooks().strdup = [](const char*) { return nullptr; };
    EXPECT_EQ(0, channel.setDevName(kFifoPath, kPcmName));
    EXPECT_EQ(-1, channel.intfUpdate(true));
    EXPECT_EQ(1, fake_log::count(kChannelLog.error("devName not set\n")));
}

TEST_F(UafChTest, UnsetNamesChangeNothingInAnyState) {
    for (const int state : {UAFCH_RUNNING, UAFCH_STOPPING, UAFCH_STOPPED}) {
        channel.state = state;
        channel.stopDelayCnt = 2;
        channel.setDevName(nullptr, nullptr);
        EXPECT_EQ(-1, channel.intfUpdate(true));
        EXPECT_EQ(-1, channel.intfUpdate(false));
        EXPECT_EQ(state, channel.state);
        EXPECT_EQ(2U, channel.stopDelayCnt);
    }
    EXPECT_THAT(journal, IsEmpty());
}

// ---- Requests in each state --------------------------------------------------------------------

TEST_F(UafChTest, OnStartsAStoppedChannel) {
    bool runningAtStart = false;
    channel.stopDelayCnt = 3;
    channel.onStart = [&] {
        runningAtStart = channel.state == UAFCH_RUNNING && channel.stopDelayCnt == 0;
    };
    EXPECT_EQ(0, channel.intfUpdate(true));
    EXPECT_TRUE(runningAtStart);
    EXPECT_EQ(UAFCH_RUNNING, channel.state);
    EXPECT_EQ(threads.created.back().id, channel.threadId);
    EXPECT_EQ(SCHED_FIFO, threads.created.back().policy);
    EXPECT_EQ(58, threads.created.back().priority);
    EXPECT_THAT(journal, ElementsAre("lock", "start", "message 1", "create", "unlock"));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(kOnMessage));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 1, current state 3\n")));
}

TEST_F(UafChTest, APositiveStartResultIsSuccess) {
    channel.startResult = 1;
    EXPECT_EQ(0, channel.intfUpdate(true));
    EXPECT_EQ(UAFCH_RUNNING, channel.state);
}

TEST_F(UafChTest, AFailedStartLeavesTheChannelStopped) {
    channel.startResult = -19;
    channel.joinPending = true;
    EXPECT_EQ(-1, channel.intfUpdate(true));
    EXPECT_EQ(UAFCH_STOPPED, channel.state);
    EXPECT_TRUE(channel.joinPending);
    EXPECT_THAT(journal, ElementsAre("lock", "start", "unlock"));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 1, current state 3\n"),
                            kChannelLog.error("failed to start audio")));
}

// The next on request finds the stream open and opens it again.
TEST_F(UafChTest, AWorkerThatCannotBeCreatedLeavesTheStreamOpenAndTheAppTold) {
    threads.refuse(EAGAIN);
    channel.threadId = kOldWorker;
    EXPECT_EQ(-1, channel.intfUpdate(true));
    EXPECT_EQ(UAFCH_STOPPED, channel.state);
    EXPECT_EQ(kOldWorker, channel.threadId);
    EXPECT_FALSE(channel.joinPending);
    EXPECT_THAT(journal, ElementsAre("lock", "start", "message 1", "create", "unlock"));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 1, current state 3\n"),
                            kChannelLog.error("pthread_create failed")));
}

// Sound at an ordinary priority is better than none.
TEST_F(UafChTest, TheWorkerIsCreatedWithWhatIsLeftOfItsAttributes) {
    fake_sys::hooks().pthread_attr_setschedpolicy = [](pthread_attr_t*, int) { return EINVAL; };
    start();
    channel.intfUpdate(false);
    runToStop();
    fake_sys::hooks().pthread_attr_setschedpolicy = nullptr;
    fake_sys::hooks().pthread_attr_setschedparam = [](pthread_attr_t*, const sched_param*) {
        return EINVAL;
    };
    forget();
    EXPECT_EQ(0, channel.intfUpdate(true));
    EXPECT_EQ(UAFCH_RUNNING, channel.state);
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 1, current state 3\n"),
                            kChannelLog.error("unable to set thread priority\n")));
}

TEST_F(UafChTest, ThePolicysFailureIsReportedUnderTheChannelsTag) {
    fake_sys::hooks().pthread_attr_setschedpolicy = [](pthread_attr_t*, int) { return EINVAL; };
    EXPECT_EQ(0, channel.intfUpdate(true));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 1, current state 3\n"),
                            kChannelLog.error("unable to setschedpolicy\n")));
}

TEST_F(UafChTest, OffChangesNothingInAStoppedChannel) {
    EXPECT_EQ(0, channel.intfUpdate(false));
    EXPECT_EQ(UAFCH_STOPPED, channel.state);
    EXPECT_THAT(journal, ElementsAre("lock", "unlock"));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 0, current state 3\n")));
}

TEST_F(UafChTest, OnChangesNothingInARunningChannel) {
    start();
    EXPECT_EQ(0, channel.intfUpdate(true));
    EXPECT_EQ(UAFCH_RUNNING, channel.state);
    EXPECT_THAT(journal, ElementsAre("lock", "unlock"));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 1, current state 1\n")));
}

TEST_F(UafChTest, OffPutsARunningChannelIntoStopping) {
    start();
    EXPECT_EQ(0, channel.intfUpdate(false));
    EXPECT_EQ(UAFCH_STOPPING, channel.state);
    EXPECT_EQ(0U, channel.stopDelayCnt);
    EXPECT_THAT(journal, ElementsAre("lock", "unlock"));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 0, current state 1\n")));
}

// A pass of the worker may race with the on request that cancels the stop.
TEST_F(UafChTest, ALateIncrementDoesNotShortenTheNextStop) {
    start();
    channel.stopDelayCnt = 3;  // left by a pass that a cancel overtook
    channel.intfUpdate(false);
    EXPECT_EQ(0U, channel.stopDelayCnt);
}

TEST_F(UafChTest, ASecondOffDoesNotRestartTheCount) {
    startAndSwitchOff();
    EXPECT_TRUE(channel.isRunning());
    EXPECT_TRUE(channel.isRunning());
    EXPECT_EQ(0, channel.intfUpdate(false));
    EXPECT_EQ(UAFCH_STOPPING, channel.state);
    EXPECT_EQ(2U, channel.stopDelayCnt);
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 0, current state 2\n")));
    EXPECT_TRUE(channel.isRunning());
    EXPECT_FALSE(channel.isRunning());
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(kOffMessage));
}

TEST_F(UafChTest, OnCancelsAStopAtEachCount) {
    start();
    for (uint32_t passes = 0; passes <= 3; ++passes) {
        channel.intfUpdate(false);
        for (uint32_t i = 0; i < passes; ++i) {
            EXPECT_TRUE(channel.isRunning());
        }
        forget();
        EXPECT_EQ(0, channel.intfUpdate(true));
        EXPECT_EQ(UAFCH_RUNNING, channel.state);
        EXPECT_EQ(0U, channel.stopDelayCnt);
        EXPECT_THAT(journal, ElementsAre("lock", "unlock"));
        EXPECT_THAT(
            fake_log::lines(),
            ElementsAre(kChannelLog.debug("intfUpdate to 1, current state 2\n"),
                        kChannelLog.debug("stopDelayCnt = " + std::to_string(passes) + "\n")));
    }
}

TEST_F(UafChTest, AnUnknownStateIsReportedAndKept) {
    for (const bool on : {true, false}) {
        for (const int state : {0, 4, -1}) {
            channel.state = state;
            forget();
            EXPECT_EQ(0, channel.intfUpdate(on));
            EXPECT_EQ(state, channel.state);
            EXPECT_THAT(journal, ElementsAre("lock", "unlock"));
            EXPECT_EQ(kChannelLog.error("unknown state " + std::to_string(state) + "\n"),
                      fake_log::lines().back());
        }
    }
}

// A failing lock makes no request fail.
TEST_F(UafChTest, RequestsGoOnWithoutTheLock) {
    locks.answer("lock", EINVAL);
    EXPECT_EQ(0, channel.intfUpdate(true));
    EXPECT_EQ(UAFCH_RUNNING, channel.state);
    EXPECT_THAT(journal, ElementsAre("lock", "start", "message 1", "create"));
    const auto line =
        kChannelLog.error("intfMutex lock failed, but best effort at this point: 22\n");
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.debug("intfUpdate to 1, current state 3\n"), line));
    forget();
    EXPECT_EQ(0, channel.intfUpdate(false));
    EXPECT_EQ(UAFCH_STOPPING, channel.state);
    EXPECT_THAT(journal, ElementsAre("lock"));
    EXPECT_THAT(fake_log::lines(), Contains(line));
}

// Log readers expect this text although nothing was stopped.
TEST_F(UafChTest, AFailedUnlockIsReportedWithTheStopsText) {
    locks.answer("unlock", EPERM);
    EXPECT_EQ(0, channel.intfUpdate(false));
    const auto line = kChannelLog.error("intfMutex unlock failed after stopping the UAFCH: 1\n");
    EXPECT_EQ(line, fake_log::lines().back());
    channel.startResult = -1;
    EXPECT_EQ(-1, channel.intfUpdate(true));
    EXPECT_EQ(line, fake_log::lines().back());
}

}  // namespace
}  // namespace uafd
