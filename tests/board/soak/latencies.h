// SPDX-License-Identifier: Apache-2.0
// Latencies in a memory that does not grow with their number. One thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "board/kit/clock.h"

namespace board {

class Latencies {
  public:
    static constexpr Ns kBin = kMs / 20;

    void add(Ns latency);
    void clear();

    int64_t count() const { return count_; }
    Ns smallest() const { return smallest_; }
    Ns largest() const { return largest_; }
    // The middle of the bin in which the `share` of all of them is reached.
    Ns quantile(double share) const;
    // "BIN:COUNT" of each that holds any; bin b begins at b times kBin.
    std::string text() const;

  private:
    static constexpr size_t kBins = 4000;  // 200 ms, and what lies beyond in the outermost ones
    std::vector<int64_t> bins_ = std::vector<int64_t>(kBins);
    int64_t count_ = 0;
    Ns smallest_ = 0;
    Ns largest_ = 0;
};

}  // namespace board
