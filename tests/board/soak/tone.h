// SPDX-License-Identifier: Apache-2.0
// What both ends play in a soak: a tone in which every stretch is found only once in 1.4 seconds.
// So a lost or repeated frame shows by its number, and as the tone is smooth, a click shows as a
// bend. Reading the tone is a table look-up. Any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "board/kit/sound.h"

namespace board {

class Tone {
  public:
    // The number of different places.
    static constexpr int64_t kPlaces = 65536;
    // How many consecutive samples can be read from every place.
    static constexpr int64_t kStretch = 4800;

    Tone();

    int16_t at(int64_t frame) const { return *from(frame); }
    const int16_t* from(int64_t frame) const {
        return table.data() + static_cast<uint64_t>(frame) % kPlaces;
    }
    // How many frames it is from `frame` to where `count` samples sound like these, forwards or
    // backwards, whichever is nearer; false when they match nowhere, or are too few to tell.
    bool displacement(int64_t frame, const int16_t* samples, int64_t count, int64_t* frames) const;

  private:
    Samples table;
};

// The shared tone; one is enough.
const Tone& tone();

// Counts the places where the sound bends more than the tone or latency control can bend it.
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
