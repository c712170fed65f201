// SPDX-License-Identifier: Apache-2.0
// A ring of samples without checks or counters: two copies and what they need to wrap around.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "bench/host/job.h"

namespace bench {

class SampleRing {
  public:
    int32_t held() const { return depth; }

    void put(const int16_t* from, int32_t n) {
        const int32_t head = std::min(n, kStorage - writeAt);
        copy(storage + writeAt, from, head);
        if (head < n) {
            copy(storage, from + head, n - head);
        }
        writeAt = after(writeAt, n);
        depth += n;
    }

    void take(int16_t* to, int32_t n) {
        const int32_t head = std::min(n, kStorage - readAt);
        copy(to, storage + readAt, head);
        if (head < n) {
            copy(to + head, storage, n - head);
        }
        drop(n);
    }

    // Where the next samples are, and how many of them are contiguous.
    const int16_t* next() const { return storage + readAt; }
    int32_t contiguous() const { return std::min(depth, kStorage - readAt); }

    void drop(int32_t n) {
        readAt = after(readAt, n);
        depth -= n;
    }

  private:
    static void copy(int16_t* to, const int16_t* from, int32_t n) {
        memcpy(to, from, static_cast<size_t>(n) * sizeof(int16_t));
    }

    static int32_t after(int32_t at, int32_t n) {
        return at + n < kStorage ? at + n : at + n - kStorage;
    }

    alignas(64) int16_t storage[kStorage]{};
    int32_t readAt = 0;
    int32_t writeAt = 0;
    int32_t depth = 0;
};

}  // namespace bench
