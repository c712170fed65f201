// SPDX-License-Identifier: Apache-2.0
// Fills the memory of `new (std::nothrow)` with garbage, like memory from a used heap, and makes an
// allocation fail on request. All other allocation works as usual.
#pragma once

#include <atomic>
#include <cstring>
#include <new>

#include "tests/support/fake_sys.h"

namespace uafd {

class FakeNew {
  public:
    // Installs the hooks; *this must outlive the calls.
    void install() {
        fake_sys::hooks()._ZnwmRKSt9nothrow_t = [this](size_t size, const std::nothrow_t& tag) {
            return failsNow() ? nullptr
                              : dirty(fake_sys::real::_ZnwmRKSt9nothrow_t(size, tag), size);
        };
        fake_sys::hooks()._ZnamRKSt9nothrow_t = [this](size_t size, const std::nothrow_t& tag) {
            return failsNow() ? nullptr
                              : dirty(fake_sys::real::_ZnamRKSt9nothrow_t(size, tag), size);
        };
    }
    // Lets one allocation fail: the next one after `successes` others. Any thread may make it.
    void failAfter(int successes) { successesLeft = successes; }
    void neverFail() { successesLeft = kNever; }

  private:
    static constexpr int kNever = -1;
    static constexpr int kDirt = 0xA5;

    bool failsNow() { return successesLeft != kNever && successesLeft.fetch_sub(1) == 0; }
    static void* dirty(void* memory, size_t size) {
        return memory != nullptr ? memset(memory, kDirt, size) : nullptr;
    }

    std::atomic<int> successesLeft{kNever};
};

}  // namespace uafd
