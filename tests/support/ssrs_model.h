// SPDX-License-Identifier: Apache-2.0
// A plain model of the frame stream buffer: a std::deque of samples, 64-bit arithmetic and the
// interpolation formula as one would write it down. Its calls return the codes that the buffer's
// return; a new model is a context just made. It knows nothing of storage that is too large for
// the queue's 31 bits.
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
    // `data` may be null.
    int write(const int16_t* data, int64_t n);
    // One frame.
    Samples read();
    // A read without an output pointer.
    int refuseRead();

    SSRS_Stats statistics() const;

    int64_t length = 0;    // of the storage last given
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
