// SPDX-License-Identifier: Apache-2.0
// The spread of a measured quantity.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "board/kit/clock.h"

namespace board {

struct Spread {
    Ns smallest = 0;
    Ns median = 0;
    Ns largest = 0;
};

inline Spread spreadOf(std::vector<Ns> values) {
    if (values.empty()) {
        return {};
    }
    std::sort(values.begin(), values.end());
    return {values.front(), values[values.size() / 2], values.back()};
}

// The smallest of the sorted values that `share` of them do not exceed.
inline Ns quantileOf(const std::vector<Ns>& sorted, double share) {
    const auto rank =
        static_cast<size_t>(std::ceil(share * static_cast<double>(sorted.size()) - 1e-6));
    return sorted.at(std::max<size_t>(rank, 1) - 1);
}

// "min 1.00 median 2.00 max 3.00 ms"
inline std::string inMs(const Spread& spread) {
    constexpr double ms = kMs;
    char text[80];
    snprintf(text, sizeof text, "min %.2f median %.2f max %.2f ms",
             static_cast<double>(spread.smallest) / ms, static_cast<double>(spread.median) / ms,
             static_cast<double>(spread.largest) / ms);
    return text;
}

}  // namespace board
