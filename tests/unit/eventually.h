// SPDX-License-Identifier: Apache-2.0
// Waiting, in real time, for what another thread or process does. Any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/types.h>

namespace uafd {

// Waits for a condition; the deadline only ends a test that has failed.
template <typename Condition>
::testing::AssertionResult eventually(Condition holds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return ::testing::AssertionFailure() << "still not so after 60 s";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return ::testing::AssertionSuccess();
}

// Waits until the thread, which sets `tid` when it starts, sleeps in the kernel.
inline ::testing::AssertionResult fallsAsleep(const std::atomic<pid_t>& tid) {
    return eventually([&] {
        std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
        std::string line;
        std::getline(stat, line);
        const size_t name = line.rfind(')');
        return name != std::string::npos && line.compare(name + 1, 2, " S") == 0;
    });
}

}  // namespace uafd
