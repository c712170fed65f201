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

    int64_t count() const { return total; }
    Ns smallest() const { return smallestSeen; }
    Ns largest() const { return largestSeen; }
    // The middle of the bin in which the `share` of all of them is reached.
    Ns quantile(double share) const;
    // "BIN:COUNT" of each that holds any; bin b begins at b times kBin.
    std::string text() const;

  private:
    static constexpr size_t kBins = 4000;  // 200 ms, and what lies beyond in the outermost ones
    std::vector<int64_t> bins = std::vector<int64_t>(kBins);
    int64_t total = 0;
    Ns smallestSeen = 0;
    Ns largestSeen = 0;
};

}  // namespace board
