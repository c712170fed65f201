// SPDX-License-Identifier: Apache-2.0
// The messages that wait for the app: their order and limit, the answer to a sync-up, and the
// effects of a lock, a condition or an allocation that fails.
#include "ipc/msg_queue.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/fake_locks.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"

namespace uafd {
namespace {

using fake_log::kIpcLog;
using Lines = std::vector<fake_log::Line>;
using Message = std::pair<uint32_t, uint32_t>;  // type, data
using Messages = std::vector<Message>;
using Strings = std::vector<std::string>;

class MsgQueueTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        locks.install();
        locks.watch(queue);
        locks.answer("wait", EINVAL);  // as nobody would signal
    }

    void TearDown() override {
        fake_sys::reset();
        take();
        fake_sys::Test::TearDown();
    }

    // Takes every message that waits, oldest first, with the real calls. Clears the log.
    Messages take() {
        static Messages taken;
        taken.clear();
        const fake_sys::Hooks saved = std::exchange(fake_sys::hooks(), {});
        fake_sys::hooks().pthread_cond_wait = [](auto...) { return EINVAL; };
        while (queue.sendOldest(
            [](const UsbAudioMsgT& msg) { taken.emplace_back(msg.type, msg.data); })) {
        }
        fake_sys::hooks() = saved;
        fake_log::clear();
        return taken;
    }

    // The messages that a sync-up adds to an empty queue.
    Messages syncUp() {
        take();
        queue.queueSyncReply();
        return take();
    }

    void setStates(uint32_t usb, uint32_t speaker, uint32_t microphone) {
        queue.queueMsg({0, usb});
        queue.queueMsg({1, speaker});
        queue.queueMsg({2, microphone});
    }

    Strings journal;
    FakeLocks locks{journal};
    MsgQueue queue;
};

// ---- Queueing ----------------------------------------------------------------------------------

TEST_F(MsgQueueTest, MessageIsCopied) {
    UsbAudioMsgT msg = {3, 1};
    queue.queueMsg(msg);
    msg = {4, 2};
    EXPECT_EQ((Messages{{3, 1}}), take());
}

// Without an app nobody takes messages, and memory must stay bounded.
TEST_F(MsgQueueTest, NewestOfAHundredGivesWay) {
    for (uint32_t i = 0; i < 99; i++)
        queue.queueMsg({3, i});
    queue.queueMsg({1, 1});
    EXPECT_EQ(Lines{}, fake_log::lines());
    queue.queueMsg({4, 0xABCD});
    queue.queueMsg({6, 1});
    EXPECT_EQ((Lines{kIpcLog.error("queueMsg: overwriting msg: <0x00000001:0x00000001> -> "
                                   "<0x00000004:0x0000ABCD>\n"),
                     kIpcLog.error("queueMsg: overwriting msg: <0x00000004:0x0000ABCD> -> "
                                   "<0x00000006:0x00000001>\n")}),
              fake_log::lines());
    const Messages taken = take();
    ASSERT_EQ(100U, taken.size());
    for (uint32_t i = 0; i < 99; i++)
        EXPECT_EQ((Message{3, i}), taken[i]);
    EXPECT_EQ((Message{6, 1}), taken[99]);
}

TEST_F(MsgQueueTest, QueueTakesAHundredAgainOnceItWasDrained) {
    for (int round = 0; round < 3; round++) {
        for (uint32_t i = 0; i < 100; i++)
            queue.queueMsg({3, i});
        EXPECT_EQ(100U, take().size());
    }
}

TEST_F(MsgQueueTest, EachAppendAndOverwriteIsBroadcastOnceUnderTheLock) {
    queue.queueMsg({3, 1});
    EXPECT_EQ((Strings{"lock", "broadcast", "unlock"}), journal);
    for (int i = 0; i < 99; i++)
        queue.queueMsg({3, 1});
    journal.clear();
    queue.queueMsg({3, 1});
    EXPECT_EQ((Strings{"lock", "broadcast", "unlock"}), journal);
}

TEST_F(MsgQueueTest, MessageThatCannotLockIsLost) {
    locks.answer("lock", EDEADLK);
    fake_sys::hooks().malloc = [](size_t) -> void* {
        ADD_FAILURE() << "allocated without the lock";
        return nullptr;
    };
    queue.queueMsg({3, 1});
    fake_sys::hooks().malloc = nullptr;
    EXPECT_EQ((Strings{"lock"}), journal);
    EXPECT_EQ((Lines{kIpcLog.error("queueMsg: lock failed: 35\n")}), fake_log::lines());
    EXPECT_EQ(Messages{}, take());
}

TEST_F(MsgQueueTest, MessageThatFindsNoMemoryIsLostWithoutABroadcast) {
    fake_sys::hooks().malloc = [](size_t) -> void* { return nullptr; };
    queue.queueMsg({3, 1});
    fake_sys::hooks().malloc = nullptr;
    EXPECT_EQ((Lines{kIpcLog.error("queueMsg: malloc failed\n")}), fake_log::lines());
    EXPECT_EQ((Strings{"lock", "unlock"}), journal);
    queue.queueMsg({3, 2});
    EXPECT_EQ((Messages{{3, 2}}), take());
}

TEST_F(MsgQueueTest, FailedBroadcastAndUnlockAreLoggedAndTheMessageStays) {
    locks.answer("broadcast", EINVAL);
    locks.answer("unlock", EPERM);
    queue.queueMsg({3, 1});
    EXPECT_EQ((Lines{kIpcLog.error("queueMsg: conditional broadcast failed: 22\n"),
                     kIpcLog.error("queueMsg: unlock failed: 1\n")}),
              fake_log::lines());
    EXPECT_EQ((Messages{{3, 1}}), take());
}

// The list was reset, but its count was not.
TEST_F(MsgQueueTest, FullCountWithoutMessagesIsReportedToTheProducersLog) {
    std::vector<void*> lost;  // the reset loses these
    fake_sys::hooks().malloc = [&](size_t size) {
        lost.push_back(fake_sys::real::malloc(size));
        return lost.back();
    };
    for (int i = 0; i < 100; i++)
        queue.queueMsg({3, 1});
    fake_sys::hooks().malloc = nullptr;
    queue.resetList();
    journal.clear();
    queue.queueMsg({3, 1});
    EXPECT_EQ((Lines{kIpcLog.error("queueMsg: last entry is NULL\n")}), fake_log::lines());
    EXPECT_EQ((Strings{"lock", "unlock"}), journal);
    new (&queue) MsgQueue;
    for (void* const entry : lost)
        free(entry);
}

// ---- The answer to a sync-up -------------------------------------------------------------------

TEST_F(MsgQueueTest, SyncUpBeforeAnyStateSaysDisconnectedAlone) {
    EXPECT_EQ((Messages{{0, 0}}), syncUp());
}

TEST_F(MsgQueueTest, SyncUpWhileConfiguredGivesAllThreeStatesInOrder) {
    for (const uint32_t speaker : {0U, 1U}) {
        for (const uint32_t microphone : {0U, 1U}) {
            setStates(1, speaker, microphone);
            EXPECT_EQ((Messages{{0, 1}, {1, speaker}, {2, microphone}}), syncUp());
        }
    }
}

TEST_F(MsgQueueTest, SyncUpWhileDisconnectedSaysThatAlone) {
    for (const uint32_t channels : {0U, 1U}) {
        setStates(0, channels, channels);
        EXPECT_EQ((Messages{{0, 0}}), syncUp());
    }
}

TEST_F(MsgQueueTest, StateBeyondOneIsSentButNotRemembered) {
    setStates(1, 1, 1);
    take();
    setStates(2, 0x80000000, 0xFFFFFFFF);
    EXPECT_EQ((Messages{{0, 2}, {1, 0x80000000}, {2, 0xFFFFFFFF}}), take());
    EXPECT_EQ((Messages{{0, 1}, {1, 1}, {2, 1}}), syncUp());
}

TEST_F(MsgQueueTest, OnlyStateMessagesAreRemembered) {
    setStates(1, 1, 1);
    for (const uint32_t type : {3U, 4U, 5U, 6U, 7U, 8U})
        queue.queueMsg({type, 0});
    EXPECT_EQ((Messages{{0, 1}, {1, 1}, {2, 1}}), syncUp());
}

TEST_F(MsgQueueTest, SyncUpIsOneHoldOfTheLockAndABroadcastPerMessage) {
    setStates(1, 1, 0);
    journal.clear();
    queue.queueSyncReply();
    EXPECT_EQ((Strings{"lock", "broadcast", "broadcast", "broadcast", "unlock"}), journal);
}

TEST_F(MsgQueueTest, SyncUpThatCannotLockIsLost) {
    setStates(1, 1, 0);
    take();
    locks.answer("lock", EDEADLK);
    queue.queueSyncReply();
    EXPECT_EQ((Lines{kIpcLog.error("queueMsg: lock failed: 35\n")}), fake_log::lines());
    EXPECT_EQ(Messages{}, take());
}

TEST_F(MsgQueueTest, SyncUpAtAHundredPendingLeavesOnlyItsLastMessage) {
    setStates(1, 0, 1);
    take();
    for (uint32_t i = 0; i < 100; i++)
        queue.queueMsg({3, i});
    queue.queueSyncReply();
    EXPECT_EQ((Lines{kIpcLog.error("queueMsg: overwriting msg: <0x00000003:0x00000063> -> "
                                   "<0x00000000:0x00000001>\n"),
                     kIpcLog.error("queueMsg: overwriting msg: <0x00000000:0x00000001> -> "
                                   "<0x00000001:0x00000000>\n"),
                     kIpcLog.error("queueMsg: overwriting msg: <0x00000001:0x00000000> -> "
                                   "<0x00000002:0x00000001>\n")}),
              fake_log::lines());
    const Messages taken = take();
    ASSERT_EQ(100U, taken.size());
    EXPECT_EQ((Message{3, 98}), taken[98]);
    EXPECT_EQ((Message{2, 1}), taken[99]);
}

// The next sync-up reports the lost state.
TEST_F(MsgQueueTest, StateThatCannotLockIsLostButRemembered) {
    setStates(1, 0, 0);
    take();
    locks.answer("lock", EDEADLK);
    queue.queueMsg({1, 1});
    locks.answer("lock", 0);
    EXPECT_EQ(Messages{}, take());
    EXPECT_EQ((Messages{{0, 1}, {1, 1}, {2, 0}}), syncUp());
}

// If another thread queues a state just before the reply takes the lock, the reply contains that
// state.
TEST_F(MsgQueueTest, ReplyGivesTheStateThatStandsWhenItHoldsTheLock) {
    setStates(1, 1, 1);
    take();
    locks.beforeNext("lock", [this] { queue.queueMsg({1, 0}); });
    queue.queueSyncReply();
    EXPECT_EQ((Messages{{1, 0}, {0, 1}, {1, 0}, {2, 1}}), take());
}

TEST_F(MsgQueueTest, ReplyGivesTheUsbStateThatStandsWhenItHoldsTheLock) {
    setStates(1, 1, 1);
    take();
    locks.beforeNext("lock", [this] { queue.queueMsg({0, 0}); });
    queue.queueSyncReply();
    EXPECT_EQ((Messages{{0, 0}, {0, 0}}), take());
}

// A state that is stored while the reply is being built follows the reply and stays. With real
// locks.
TEST_F(MsgQueueTest, ReplyNeverRevivesAStateThatWasReplacedMeanwhile) {
    setStates(1, 1, 1);
    take();
    std::thread producer;
    std::atomic<bool> stored{false};
    const std::thread::id receiver = std::this_thread::get_id();
    fake_sys::reset();
    fake_sys::hooks().pthread_mutex_lock = [&](pthread_mutex_t* mutex) {
        if (std::this_thread::get_id() != receiver)
            stored = true;
        return fake_sys::real::pthread_mutex_lock(mutex);
    };
    int messages = 0;
    fake_sys::hooks().pthread_cond_broadcast = [&](pthread_cond_t* condition) {
        if (std::this_thread::get_id() == receiver && ++messages == 2) {
            producer = std::thread([this] { queue.queueMsg({1, 0}); });
            while (!stored)
                sched_yield();
        }
        return fake_sys::real::pthread_cond_broadcast(condition);
    };
    queue.queueSyncReply();
    producer.join();
    EXPECT_EQ((Messages{{0, 1}, {1, 1}, {2, 1}, {1, 0}}), take());
    fake_sys::hooks().pthread_cond_broadcast = nullptr;
    EXPECT_EQ((Messages{{0, 1}, {1, 0}, {2, 1}}), syncUp());
}

}  // namespace
}  // namespace uafd
