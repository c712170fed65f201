// SPDX-License-Identifier: Apache-2.0
// For programs whose tests declare that they create no thread: a thread ends the program.
#include <cstdio>
#include <cstdlib>
#include <pthread.h>

int pthread_create(pthread_t* /*thread*/, const pthread_attr_t* /*attributes*/,
                   void* (* /*routine*/)(void*), void* /*argument*/) noexcept {
    fputs("This program is said to have one thread (ONE_THREAD) and creates another.\n", stderr);
    abort();
}
