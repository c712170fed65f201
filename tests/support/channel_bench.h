// SPDX-License-Identifier: Apache-2.0
// A channel for tests of the base's life cycle: its lock, its threads and its messages appear in a
// journal in the order of the calls. No thread is made: a test calls the worker's part itself.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/test_channel.h"

namespace channel_bench {

constexpr char FIFO[] = "/tmp/usbAudioFifoTx";
constexpr char PCM[] = "hw:1";
constexpr pthread_t OLD_WORKER = 41;
constexpr pthread_t NEW_WORKER = 42;
const fake_ipc::Message ON_MESSAGE{TestChannel::MSG_TYPE, 1};
const fake_ipc::Message OFF_MESSAGE{TestChannel::MSG_TYPE, 0};

class Test : public fake_alsa::Test {
  protected:
    void SetUp() override {
        fake_alsa::Test::SetUp();
        hookMutex();
        hookThreads();
        forget();
        channel.setDevName(FIFO, PCM);
    }

    void TearDown() override {
        fake_ipc::clear();
        fake_alsa::Test::TearDown();
    }

    // The channel's lock as the journal shows it; each call's result can be set.
    void hookMutex() {
        fake_sys::hooks().pthread_mutex_lock = [this](pthread_mutex_t* mutex) {
            if (mutex == &channel.intfMutex) {
                std::exchange(beforeNextLock, [] {})();
                journal.push_back("lock");
                return lockResult;
            }
            return fake_sys::real::pthread_mutex_lock(mutex);
        };
        fake_sys::hooks().pthread_mutex_trylock = [this](pthread_mutex_t* mutex) {
            EXPECT_EQ(&channel.intfMutex, mutex);
            journal.push_back("trylock");
            return tryLockResult;
        };
        fake_sys::hooks().pthread_mutex_unlock = [this](pthread_mutex_t* mutex) {
            if (mutex == &channel.intfMutex) {
                journal.push_back("unlock");
                return unlockResult;
            }
            return fake_sys::real::pthread_mutex_unlock(mutex);
        };
    }

    void hookThreads() {
        fake_sys::hooks().pthread_create = [this](pthread_t* id, const pthread_attr_t* attributes,
                                                  void* (*entry)(void*), void* argument) {
            journal.push_back("create");
            sched_param parameters{};
            pthread_attr_getschedpolicy(attributes, &policy);
            pthread_attr_getschedparam(attributes, &parameters);
            priority = parameters.sched_priority;
            EXPECT_EQ(&UafCh::ChThread, entry);
            EXPECT_EQ(&channel, argument);
            *id = NEW_WORKER;
            return createResult;
        };
        fake_sys::hooks().pthread_join = [this](pthread_t id, void**) {
            journal.push_back("join " + std::to_string(id));
            return 0;
        };
    }

    void start() {
        ASSERT_EQ(0, channel.intfUpdate(true));
        forget();
    }

    // Running, then switched off: as before the first isRunning.
    void startAndSwitchOff() {
        start();
        ASSERT_EQ(0, channel.intfUpdate(false));
        forget();
    }

    void runToStop() {
        for (int passes = 1; channel.isRunning(); ++passes) {
            ASSERT_LT(passes, 10) << "the channel does not stop";
        }
    }

    void forget() {
        journal.clear();
        fake_log::clear();
        fake_ipc::clear();
        fake_ipc::onMessage() = [this](const fake_ipc::Message& message) {
            journal.push_back("message " + std::to_string(message.second));
        };
    }

    std::vector<std::string> journal;
    TestChannel channel{journal};
    int lockResult = 0;
    int tryLockResult = 0;
    int unlockResult = 0;
    int createResult = 0;
    int policy = -1;
    int priority = -1;
    std::function<void()> beforeNextLock = [] {};
};

}  // namespace channel_bench
