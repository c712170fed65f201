// SPDX-License-Identifier: Apache-2.0
// The speaker's direction of a soak: what the app heard, held against the tone that the host
// plays, frame by frame. One thread.
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
    // False when anything of it was not in its place.
    bool follow(const int16_t* samples, int64_t count);
    // Deals with samples that are not what comes next; returns how many of them are dealt with.
    int64_t findAgain(const int16_t* samples, int64_t count);

    const int64_t queueBegin;
    int64_t next = 0;  // the frame that is to be heard next, counted from the host's first
    ClickCounter clicks;
};

}  // namespace board
