// SPDX-License-Identifier: Apache-2.0
// Lets a channel's worker make its passes one by one: the worker stops at the gate in each pass,
// and a test lets it through and waits until it is back.
#pragma once

#include <condition_variable>
#include <mutex>

namespace uafd {

class PassGate {
  public:
    // The worker calls this in each pass.
    void arrive() {
        std::unique_lock<std::mutex> lock(mutex);
        ++arrivals;
        changed.notify_all();
        changed.wait(lock, [this] { return isOpen || permits > 0; });
        permits -= isOpen ? 0 : 1;
    }

    // The test calls this: lets `passes` passes begin and waits until the worker is back at the
    // gate; 0 waits for its first arrival.
    void letThrough(int passes) {
        std::unique_lock<std::mutex> lock(mutex);
        permits += passes;
        expected += passes;
        changed.notify_all();
        changed.wait(lock, [this] { return arrivals >= expected; });
    }

    // The test calls this: from now on nobody has to stop.
    void open() {
        const std::lock_guard<std::mutex> lock(mutex);
        isOpen = true;
        changed.notify_all();
    }

    // The test calls this while there is no worker: closes the gate and forgets all passes.
    void reset() {
        const std::lock_guard<std::mutex> lock(mutex);
        arrivals = 0;
        expected = 1;
        permits = 0;
        isOpen = false;
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    int arrivals = 0;
    int expected = 1;
    int permits = 0;
    bool isOpen = false;
};

}  // namespace uafd
