// SPDX-License-Identifier: Apache-2.0
// What both ends play in a soak: a tone that names its place. Every stretch of it occurs once in
// 1.4 seconds, so that a frame lost or repeated shows by its number, and it is smooth, so that a
// click shows as a bend. Reading it is a look into a table. Any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "board/kit/sound.h"

namespace board {

class Tone {
  public:
    // Places that differ.
    static constexpr int64_t kPlaces = 65536;
    // This many samples lie beside each other from every place on.
    static constexpr int64_t kStretch = 4800;

    Tone();

    int16_t at(int64_t frame) const { return *from(frame); }
    const int16_t* from(int64_t frame) const {
        return table.data() + static_cast<uint64_t>(frame) % kPlaces;
    }
    // How many frames from `frame` on it is to where `count` samples sound like these, forwards or
    // backwards, whichever is less; false when nowhere, or when the samples are too few to tell.
    bool displacement(int64_t frame, const int16_t* samples, int64_t count, int64_t* frames) const;

  private:
    Samples table;
};

// The only one there need be.
const Tone& tone();

// Counts the places where a sound has a bend that neither the tone has nor what latency control
// makes of it.
class ClickCounter {
  public:
    // The next samples; returns how many clicks began in them.
    int64_t add(const int16_t* samples, int64_t count);

  private:
    int last = 0;
    int beforeLast = 0;
    int64_t at = 0;
    int64_t lastBendAt = INT64_MIN / 2;
};

}  // namespace board
