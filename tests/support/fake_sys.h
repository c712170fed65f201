// SPDX-License-Identifier: Apache-2.0
// Stands in for libc and thread calls: the linker's --wrap sends each of them here, and an unset
// hook passes it on to the real one. A test sets a hook to record a call, to fail at a step, or to
// answer from a script; inside a hook, real::NAME reaches the real call.
//
// Hooks are set before the threads that meet them start, and never changed while those run.
#pragma once

#include <cerrno>
#include <functional>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "tests/support/tsan_blind.h"
#include "tests/support/wrapping.h"

namespace fake_sys {

struct Hooks {
#define WRAPPED WRAPPED_HOOK
#define WRAPPED_BY_HAND WRAPPED_HOOK
#include "tests/support/wrapped_calls.inc"
};

// The hooks in force; reset() unsets them all.
Hooks& hooks();
void reset();

// A hook for calls that all fail with this errno.
inline auto failing(int error) {
    return [error](auto...) {
        errno = error;
        return -1;
    };
}

// The real calls. pthread_create ignores the scheduling attributes, which need privileges, and
// keeps the rest: a test of the attributes hooks the call.
namespace real {
#define WRAPPED WRAPPED_REAL
#define WRAPPED_BY_HAND WRAPPED_REAL
#include "tests/support/wrapped_calls.inc"
}  // namespace real

// A lock for the stand-ins and for hooks themselves: the pthread_mutex hooks never see it.
class Mutex {
  public:
    void lock() {
        if (unseen) {
            tsan_blind::begin();
        }
        real::pthread_mutex_lock(&mutex);
    }
    void unlock() {
        real::pthread_mutex_unlock(&mutex);
        if (unseen) {
            tsan_blind::end();
        }
    }

    // Makes every such lock, and what it guards, unseen by ThreadSanitizer: it would order threads
    // that nothing orders outside of the tests. Before any other thread starts.
    static void hideFromTsan() { unseen = true; }

  private:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    static inline bool unseen = false;
};

// A fixture that starts and ends with no hooks set and an empty log.
class Test : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace fake_sys
