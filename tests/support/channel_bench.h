// SPDX-License-Identifier: Apache-2.0
// A channel for tests of the base's life cycle: its lock, its threads and its messages appear in a
// journal in the order of the calls. No thread is made: a test calls the worker's part itself.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_locks.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_threads.h"
#include "tests/support/test_channel.h"

namespace uafd::channel_bench {

constexpr char kFifoPath[] = "/tmp/usbAudioFifoTx";
constexpr char kPcmName[] = "hw:1";
constexpr pthread_t kOldWorker = 41;
const fake_ipc::Message kOnMessage{TestChannel::kMsgType, 1};
const fake_ipc::Message kOffMessage{TestChannel::kMsgType, 0};

class Test : public fake_alsa::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    void start();
    // Running, then switched off: as before the first isRunning.
    void startAndSwitchOff();
    void runToStop();
    // Empties journal, log and messages.
    void forget();

    std::vector<std::string> journal;
    TestChannel channel{journal};
    FakeLocks locks{journal};  // the channel's: "lock"
    FakeThreads threads{journal};
};

}  // namespace uafd::channel_bench
