// SPDX-License-Identifier: Apache-2.0
// Replaces libc and thread calls: the linker's --wrap sends each of them here, and an unset hook
// passes it on to the real one. A test sets a hook to record a call, to let it fail, or to answer
// it from a script; inside a hook, real::NAME is the real call.
//
// Hooks are set before the threads that use them start, and do not change while those run.
#pragma once

#include <cerrno>
#include <functional>
#include <new>
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

// A hook that makes every call fail with this errno.
inline auto failing(int error) {
    return [error](auto...) {
        errno = error;
        return -1;
    };
}

// The real calls. pthread_create ignores the scheduling attributes, which need privileges, but no
// other attribute: a test of the scheduling hooks the call.
namespace real {
#define WRAPPED WRAPPED_REAL
#define WRAPPED_BY_HAND WRAPPED_REAL
#include "tests/support/wrapped_calls.inc"
}  // namespace real

// A lock for the stand-ins and for hooks: the pthread_mutex hooks never see it.
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

    // Hides every such lock, and the data that it guards, from ThreadSanitizer: otherwise the lock
    // would order threads that nothing orders outside the tests. Call this before any other thread
    // starts.
    static void hideFromTsan() { unseen = true; }

  private:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    static inline bool unseen = false;
};

// What brings a stand-in back to its state at the start. Each stand-in has one static object.
struct Restorer {
    explicit Restorer(void (*restore)());
};

// A fixture that restores every stand-in before and after each test.
class Test : public ::testing::Test {
  protected:
    Test() { restoreAll(); }
    void TearDown() override { restoreAll(); }

  private:
    static void restoreAll();
};

}  // namespace fake_sys
