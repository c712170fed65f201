// SPDX-License-Identifier: Apache-2.0
// A process as /proc shows it: threads, processor time, descriptors, memory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

#include "board/kit/clock.h"

namespace board {

struct ThreadView {
    int tid;
    int policy;           // SCHED_OTHER, SCHED_FIFO, ...
    int priority;         // of the real-time policies
    char state;           // as in /proc: R, S, D, Z, ...
    Ns cpu;               // processor time so far
    std::string waitsIn;  // the kernel function it sleeps in
};

// The threads of a process, without those that end meanwhile.
std::vector<ThreadView> threadsOf(pid_t pid);
size_t threadCount(pid_t pid);
Ns cpuOf(pid_t pid);
// How often the threads that still exist have gone to sleep so far.
int64_t sleepsOf(pid_t pid);

// What each open descriptor leads to, sorted.
std::vector<std::string> descriptorsOf(pid_t pid);

struct MemoryView {
    int64_t residentKb;
    int64_t privateKb;
    int64_t anonymousKb;  // the part that no file backs: heap, stacks, changed data
};
MemoryView memoryOf(pid_t pid);

}  // namespace board
