// SPDX-License-Identifier: Apache-2.0
// The speaker's direction of a soak: compares each frame that the app heard with the tone that the
// host plays. One thread.
#pragma once

#include <cstdint>

#include "board/kit/app.h"
#include "tests/board/soak/tally.h"
#include "tests/board/soak/tone.h"

namespace board {

class SpeakerTally : public Tally {
  public:
    // The host's queue begins with frame `queueBegin` of its stream.
    SpeakerTally(Window window, int64_t queueBegin) : Tally(window), queueBegin(queueBegin) {}

    void add(const Heard& heard, const StreamClock& clock);

  private:
    // Returns false when any of them was not in its place.
    bool follow(const int16_t* samples, int64_t count);
    // Handles samples that are not the expected ones; returns how many of them it handled.
    int64_t findAgain(const int16_t* samples, int64_t count);

    const int64_t queueBegin;
    int64_t next = 0;  // the frame expected next, counted from the host's first
    ClickCounter clicks;
};

}  // namespace board
