// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_sys.h"

#include <cstdarg>
#include <vector>

extern "C" {
#define WRAPPED WRAPPED_LINKED
#include "tests/support/wrapped_calls.inc"
int __real_open(const char* path, int flags, ...);
int __real_fcntl(int fd, int command, ...);
int __real_ioctl(int fd, unsigned long request, ...);
int __real_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument);
}

namespace fake_sys {

Hooks& hooks() {
    // Never destroyed: wrapped calls come before static objects are constructed and after they are
    // destroyed.
    static auto* const current = new Hooks;
    return *current;
}

void reset() {
    hooks() = Hooks{};
}

namespace {

std::vector<void (*)()>& restorers() {
    static auto* const all = new std::vector<void (*)()>{reset};
    return *all;
}

}  // namespace

Restorer::Restorer(void (*restore)()) {
    restorers().push_back(restore);
}

void Test::restoreAll() {
    for (void (*const restore)() : restorers()) {
        restore();
    }
}

namespace real {

#define WRAPPED WRAPPED_REAL_BODY
#include "tests/support/wrapped_calls.inc"

int open(const char* path, int flags) {
    constexpr mode_t createMode = 0600;
    return __real_open(path, flags, createMode);
}
int fcntl(int fd, int command, long argument) {
    return __real_fcntl(fd, command, argument);
}
int ioctl(int fd, unsigned long request, void* argument) {
    return __real_ioctl(fd, request, argument);
}
int pthread_create(pthread_t* id, const pthread_attr_t*, void* (*entry)(void*), void* argument) {
    return __real_pthread_create(id, nullptr, entry, argument);
}

}  // namespace real
}  // namespace fake_sys

using fake_sys::hooks;
namespace real = fake_sys::real;

extern "C" {
#define WRAPPED WRAPPED_CALL
#include "tests/support/wrapped_calls.inc"

int __wrap_open(const char* path, int flags, ...) {
    return hooks().open ? hooks().open(path, flags) : real::open(path, flags);
}
int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return hooks().fcntl ? hooks().fcntl(fd, command, argument)
                         : real::fcntl(fd, command, argument);
}
int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return hooks().ioctl ? hooks().ioctl(fd, request, argument)
                         : real::ioctl(fd, request, argument);
}
int __wrap_pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
                          void* argument) {
    return hooks().pthread_create ? hooks().pthread_create(id, attributes, entry, argument)
                                  : real::pthread_create(id, attributes, entry, argument);
}
}
