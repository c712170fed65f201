// SPDX-License-Identifier: Apache-2.0
// One direction of a sound card as the bridge uses it: one channel, counted in frames of the card's
// rate, and nothing that waits. One thread.
#pragma once

#include <cstddef>

namespace uafd {

// Results below 0 are negative errnos; -EPIPE is an xrun, after which stop() makes the card ready
// again. After any other the card is of no use any more.
class Card {
  public:
    virtual ~Card() = default;

    virtual double rate() const = 0;
    virtual size_t periodFrames() const = 0;
    virtual size_t bufferFrames() const = 0;

    // A playback starts with what was written before.
    virtual int start() = 0;
    // Drops what is in the buffer.
    virtual int stop() = 0;
    // Writes all of them, which must fit.
    virtual int write(const float* samples, size_t frames) = 0;
    // Frames written that have not been heard.
    virtual int delay() = 0;
    // Returns how many frames it has read, 0 when there are none at present.
    virtual int read(float* samples, size_t framesMax) = 0;
};

}  // namespace uafd
