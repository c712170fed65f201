// SPDX-License-Identifier: Apache-2.0
// A table of how a time spreads: count, percentiles and largest. One thread.
#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/board/table.h"
#include "board/kit/statistics.h"

namespace bench {

class SpreadTable {
  public:
    // In units of this many nanoseconds.
    SpreadTable(const char* key, const char* title, double unit, int decimals)
        : unit(unit),
          table(key, title,
                {{"count", "count", 0},
                 {"p0", "smallest", decimals},
                 {"p50", "50 %", decimals},
                 {"p90", "90 %", decimals},
                 {"p99", "99 %", decimals},
                 {"p99_9", "99.9 %", decimals},
                 {"max", "largest", decimals}}) {}

    // Throws when there are none.
    void add(const std::string& name, std::vector<board::Ns> times) {
        if (times.empty()) {
            throw std::runtime_error(name + " was never seen");
        }
        std::sort(times.begin(), times.end());
        std::vector<Figure> figures{static_cast<double>(times.size())};
        for (const double share : {0.0, 0.5, 0.9, 0.99, 0.999, 1.0}) {
            figures.emplace_back(static_cast<double>(board::quantileOf(times, share)) / unit);
        }
        table.add(name, figures);
    }

    void publish() const { table.publish(); }

  private:
    const double unit;
    Table table;
};

}  // namespace bench
