// SPDX-License-Identifier: Apache-2.0
// Creates the daemon's real-time threads: each channel's worker and the source channel's buffer
// thread.
#pragma once

#include <pthread.h>

namespace uafd {

constexpr int kRtPriority = 58;  // of every audio thread, policy SCHED_FIFO

// Creates a thread that runs `entry` with `argument` at SCHED_FIFO, priority kRtPriority; when one
// of the attributes cannot be set the thread is created with what is left of them. `threadId` is
// written only on success. Logs under `tag`, error level: "unable to setschedpolicy\n",
// "unable to set thread priority\n". Returns 0 or pthread_create's code, with errno as that left
// it.
int createRtThread(pthread_t* threadId, void* (*entry)(void*), void* argument, const char* tag);

}  // namespace uafd
