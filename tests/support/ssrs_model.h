// SPDX-License-Identifier: Apache-2.0
// A simple model of the frame stream buffer: a std::deque of samples, 64-bit arithmetic and the
// plain interpolation formula. Its calls return the buffer's codes; a new model matches a new
// context. It does not cover storage that is too large for the queue's 31 bits.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "buffer/ssrs.h"

namespace uafd {

class SsrsModel {
  public:
    using Samples = std::vector<int16_t>;

    int setFrameSize(int n);
    int setQBuff(bool haveStorage, int64_t len);
    int setQDepth(int64_t newLow, int64_t newHigh);
    // A null `data` is a null pointer.
    int write(const int16_t* data, int64_t n);
    // Reads one frame.
    Samples read();
    // Reads without an output pointer.
    int refuseRead();

    SSRS_Stats statistics() const;

    int64_t length = 0;    // of the storage that was given last
    int64_t capacity = 0;  // of the storage in use
    int64_t pending = 0;
    int64_t average = 0;
    int64_t low = 0;
    int64_t high = 0;
    int frameSize = 480;
    bool fixedRate = false;
    bool testTone = false;
    SSRS_Stats stats{};
    std::deque<int16_t> held;

  private:
    int64_t size() const { return static_cast<int64_t>(held.size()); }
    int correction(int64_t depth);
    Samples taken(int64_t count);
    Samples frameOf(const Samples& in) const;
    Samples overlaid(Samples frame) const;

    bool attached = false;
};

}  // namespace uafd
