// SPDX-License-Identifier: Apache-2.0
#include "tests/support/channel_bench.h"

namespace uafd::channel_bench {

void Test::SetUp() {
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

void Test::start() {
    ASSERT_EQ(0, channel.intfUpdate(true));
    forget();
}

void Test::startAndSwitchOff() {
    start();
    ASSERT_EQ(0, channel.intfUpdate(false));
    forget();
}

void Test::runToStop() {
    for (int passes = 1; channel.isRunning(); ++passes) {
        ASSERT_LT(passes, 10) << "the channel does not stop";
    }
}

void Test::forget() {
    journal.clear();
    fake_log::clear();
    fake_ipc::clear();
    fake_ipc::onMessage() = [this](const fake_ipc::Message& message) {
        journal.push_back("message " + std::to_string(message.second));
    };
}

}  // namespace uafd::channel_bench
