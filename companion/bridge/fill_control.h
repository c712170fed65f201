// SPDX-License-Identifier: Apache-2.0
// The control loop that holds a buffer's fill between two clocks: numbers in, a correction of the
// resampling ratio out. It filters what it is told before it acts, because a card reports its
// position in steps of up to a period, and so changes the pitch too slowly to be heard. At first it
// is quick, so that it finds the clocks' difference within seconds; then it becomes slow and quiet.
// One thread.
#pragma once

#include <algorithm>
#include <cmath>

namespace uafd {

class FillControl {
  public:
    // The largest correction; 3 thousandths are a twentieth of a semitone.
    static constexpr double kMost = 0.003;

    // Of a buffer of `rate` frames a second.
    explicit FillControl(double rate) : rate(rate) {}

    // `excess`: how many frames more than wanted the buffer holds; `seconds`: since the call
    // before. Returns the correction.
    double update(double excess, double seconds) {
        const double omega = std::max(kLast, kFirst / (1 + age / kFallS));
        age += seconds;
        filtered += (excess - filtered) * -std::expm1(-seconds * omega / kFilterPart);
        found = std::clamp(found + omega * omega * filtered * seconds / rate, -kMost, kMost);
        current = std::clamp(found + 2 * omega * filtered / rate, -kMost, kMost);
        return current;
    }

    // The buffer was filled up to what is wanted. What was found about the clocks stays.
    void restart() {
        filtered = 0;
        current = found;
    }

    // The part by which frames come faster than they go: the part of them to leave out.
    double correction() const { return current; }

  private:
    // A loop of the second order with critical damping, whose natural frequency falls from the
    // first to the last value, in radians a second. At the last one an offset of 1000 ppm, had it
    // come at once, would move the fill by at most 4 ms.
    static constexpr double kFirst = 0.8;
    static constexpr double kLast = 0.1;
    static constexpr double kFallS = 5;          // after this time it has fallen to half
    static constexpr double kFilterPart = 0.25;  // the filter's time, as a part of the loop's

    const double rate;
    double age = 0;       // seconds under control
    double filtered = 0;  // frames
    double found = 0;     // the clocks' difference
    double current = 0;
};

}  // namespace uafd
