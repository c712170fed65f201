// SPDX-License-Identifier: Apache-2.0
// A histogram of latencies: its memory does not grow with their number. One thread.
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
    // The middle of the bin in which the `share` of all latencies is reached.
    Ns quantile(double share) const;
    // "BIN:COUNT" for each bin that is not empty; bin b begins at b times kBin.
    std::string text() const;

  private:
    static constexpr size_t kBins = 4000;  // 200 ms; what lies outside is in the first or last bin
    std::vector<int64_t> bins = std::vector<int64_t>(kBins);
    int64_t total = 0;
    Ns smallestSeen = 0;
    Ns largestSeen = 0;
};

}  // namespace board
