// SPDX-License-Identifier: Apache-2.0
#include "companion/bridge/fill_control.h"

#include <algorithm>
#include <cmath>

namespace uafd {
namespace {

// A loop of the second order with critical damping, whose natural frequency falls from the first to
// the last value, in radians a second. At the last one an offset of 1000 ppm, had it come at once,
// would move the fill by at most 4 ms.
constexpr double kFirst = 0.8;
constexpr double kLast = 0.1;
constexpr double kFallS = 5;          // after this time it has fallen to half
constexpr double kFilterPart = 0.25;  // the filter's time, as a part of the loop's

double naturalFrequency(double age) {
    return std::max(kLast, kFirst / (1 + age / kFallS));
}

}  // namespace

double FillControl::update(double excess, double seconds) {
    const double omega = naturalFrequency(age);
    age += seconds;
    filtered += (excess - filtered) * -std::expm1(-seconds * omega / kFilterPart);
    found = std::clamp(found + omega * omega * filtered * seconds / rate, -kMost, kMost);
    current = std::clamp(found + 2 * omega * filtered / rate, -kMost, kMost);
    return current;
}

void FillControl::restart() {
    filtered = 0;
    current = found;
}

}  // namespace uafd
