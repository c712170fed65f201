// SPDX-License-Identifier: Apache-2.0
// The board's virtual clock, CLOCK_MONOTONIC in nanoseconds: the time base of every stamp in the
// board tests. Sleeping costs no real time, so waiting is by polling a condition. Any thread.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace board {

using Ns = int64_t;
constexpr Ns kMs = 1000000;
constexpr Ns kSecond = 1000 * kMs;

inline Ns now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * kSecond + time.tv_nsec;
}

inline void sleepUntil(Ns at) {
    const timespec time{at / kSecond, at % kSecond};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
    }
}

inline void sleepFor(Ns time) {
    sleepUntil(now() + time);
}

// True as soon as the condition holds, false when it does not within `limit` of virtual time.
template <typename Condition>
bool waitFor(Condition&& condition, Ns limit = 5 * kSecond) {
    const Ns end = now() + limit;
    while (!condition()) {
        if (now() >= end) {
            return false;
        }
        sleepFor(kMs);
    }
    return true;
}

}  // namespace board
