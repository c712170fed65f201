// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/latencies.h"

#include <algorithm>

namespace board {

void Latencies::add(Ns latency) {
    const auto bin = std::clamp<Ns>(latency / kBin, 0, kBins - 1);
    ++bins[static_cast<size_t>(bin)];
    smallestSeen = total == 0 ? latency : std::min(smallestSeen, latency);
    largestSeen = total == 0 ? latency : std::max(largestSeen, latency);
    ++total;
}

void Latencies::clear() {
    *this = Latencies();
}

Ns Latencies::quantile(double share) const {
    const auto wanted = static_cast<int64_t>(share * static_cast<double>(total));
    int64_t sum = 0;
    for (size_t bin = 0; bin < kBins; ++bin) {
        sum += bins[bin];
        if (sum > wanted) {
            return static_cast<Ns>(bin) * kBin + kBin / 2;
        }
    }
    return largestSeen;
}

std::string Latencies::text() const {
    std::string text;
    for (size_t bin = 0; bin < kBins; ++bin) {
        if (bins[bin] > 0) {
            text += " " + std::to_string(bin) + ":" + std::to_string(bins[bin]);
        }
    }
    return text;
}

}  // namespace board
