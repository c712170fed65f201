// SPDX-License-Identifier: Apache-2.0
// Random choices; a seed repeats them. One thread.
#pragma once

#include <cstdint>
#include <random>

namespace board {

class Random {
  public:
    explicit Random(uint64_t seed) : engine(seed) {}
    // 0 to `limit` - 1, all equally likely.
    int64_t below(int64_t limit) {
        return static_cast<int64_t>(engine() % static_cast<uint64_t>(limit));
    }
    bool flip() { return below(2) == 1; }

  private:
    std::mt19937_64 engine;
};

}  // namespace board
