// SPDX-License-Identifier: Apache-2.0
// For a program whose tests say that they create no thread: one that does ends the program.
#include <cstdio>
#include <cstdlib>
#include <pthread.h>

int pthread_create(pthread_t* /*thread*/, const pthread_attr_t* /*attributes*/,
                   void* (* /*routine*/)(void*), void* /*argument*/) noexcept {
    fputs("This program is said to have one thread (ONE_THREAD) and creates another.\n", stderr);
    abort();
}
