// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_new.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <new>

namespace {

constexpr int kNever = -1;
std::atomic<int> successesLeft{kNever};

bool failsNow() {
    return successesLeft.load() != kNever && successesLeft.fetch_sub(1) == 0;
}

constexpr int kDirt = 0xA5;

void* dirtied(void* memory, std::size_t size) {
    return memory != nullptr ? memset(memory, kDirt, size) : nullptr;
}

}  // namespace

namespace fake_new {

void failAfter(int successes) {
    successesLeft = successes;
}

void reset() {
    successesLeft = kNever;
}

}  // namespace fake_new

// Wraps the operators under their mangled names: the sanitizers define operators of their own,
// which a definition here would clash with.
extern "C" {
void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);
void* __real__ZnamRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);

void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
    return failsNow() ? nullptr : dirtied(__real__ZnwmRKSt9nothrow_t(size, tag), size);
}

void* __wrap__ZnamRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
    return failsNow() ? nullptr : dirtied(__real__ZnamRKSt9nothrow_t(size, tag), size);
}
}
