// SPDX-License-Identifier: Apache-2.0
// A channel for tests of the base class's life cycle: its lock, its threads and its messages appear
// in a journal in the order of the calls. No thread is created: a test calls the worker's part
// itself.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "channel/uaf_ch.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_locks.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_threads.h"

namespace uafd::channel_bench {

constexpr char kFifoPath[] = "/tmp/usbAudioFifoTx";
constexpr char kPcmName[] = "hw:1";
constexpr pthread_t kOldWorker = 41;

// The smallest channel: the base class with a stream that only notes what the base asks for. Tests
// can access the base's protected and private members.
class TestChannel : public UafCh {
  public:
    static constexpr int kMsgType = 7;

    explicit TestChannel(std::vector<std::string>& journalOfTest)
        : UafCh(kMsgType), journal(journalOfTest) {}

    void uafLoop() override { journal.push_back("loop"); }
    int uafStart() override {
        journal.push_back("start");
        onStart();
        return startResult;
    }
    int uafStop() override {
        journal.push_back("stop");
        onStop();
        return 0;
    }

    int startResult = 0;
    std::function<void()> onStart = [] {};
    std::function<void()> onStop = [] {};

    using UafCh::fifo;
    using UafCh::fifoName;
    using UafCh::intfMutex;
    using UafCh::joinPending;
    using UafCh::msgType;
    using UafCh::pcmHandle;
    using UafCh::pcmName;
    using UafCh::pcmStallCnt;
    using UafCh::pcmStatus;
    using UafCh::state;
    using UafCh::stopDelayCnt;
    using UafCh::threadId;

    using UafCh::missedWait;
    using UafCh::recoverPcm;
    using UafCh::requestStop;

  private:
    std::vector<std::string>& journal;
};

const fake_ipc::Message kOnMessage{TestChannel::kMsgType, 1};
const fake_ipc::Message kOffMessage{TestChannel::kMsgType, 0};

class Test : public fake_sys::Test {
  protected:
    void SetUp() override {
        locks.install();
        locks.watch(channel.intfMutex);
        threads.install();
        threads.onCreate = [this](const FakeThreads::Thread& thread) {
            EXPECT_EQ(&UafCh::ChThread, thread.entry);
            EXPECT_EQ(&channel, thread.argument);
            return 0;
        };
        forget();
        channel.setDevName(kFifoPath, kPcmName);
    }
    void start() {
        ASSERT_EQ(0, channel.intfUpdate(true));
        forget();
    }
    // Starts the channel and switches it off; it is then just before its first isRunning.
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
    // Empties journal, log and messages.
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
    FakeLocks locks{journal};  // the channel's: "lock"
    FakeThreads threads{journal};
};

}  // namespace uafd::channel_bench
