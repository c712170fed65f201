// SPDX-License-Identifier: Apache-2.0
// The control loop that holds a buffer's fill between two clocks: numbers in, a correction of the
// resampling ratio out. It filters what it is told before it acts, because a card reports its
// position in steps of up to a period, and so changes the pitch too slowly to be heard. At first it
// is quick, so that it finds the clocks' difference within seconds; then it becomes slow and quiet.
// One thread.
#pragma once

namespace uafd {

class FillControl {
  public:
    // The largest correction; 3 thousandths are a twentieth of a semitone.
    static constexpr double kMost = 0.003;

    // Of a buffer of `rate` frames a second.
    explicit FillControl(double rate) : rate(rate) {}

    // `excess`: how many frames more than wanted the buffer holds; `seconds`: since the call
    // before. Returns the correction.
    double update(double excess, double seconds);

    // The buffer was filled up to what is wanted. What was found about the clocks stays.
    void restart();

    // The part by which frames come faster than they go: the part of them to leave out.
    double correction() const { return current; }

  private:
    const double rate;
    double age = 0;       // seconds under control
    double filtered = 0;  // frames
    double found = 0;     // the clocks' difference
    double current = 0;
};

}  // namespace uafd
