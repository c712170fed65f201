// SPDX-License-Identifier: Apache-2.0
#include "board/kit/clock.h"

#include <cerrno>
#include <ctime>

namespace board {

Ns now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * kSecond + time.tv_nsec;
}

void sleepUntil(Ns at) {
    const timespec time{at / kSecond, at % kSecond};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
    }
}

void sleepFor(Ns time) {
    sleepUntil(now() + time);
}

}  // namespace board
