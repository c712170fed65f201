// SPDX-License-Identifier: Apache-2.0
// The input of a simulation: how the app writes and how the clocks differ.
#pragma once

#include <cstdint>
#include <vector>

#include "board/kit/clock.h"

namespace drift {

using board::kMs;
using board::kSecond;
using board::Ns;

// A time in which the app writes nothing.
struct Pause {
    Ns at;
    Ns length;
    bool dropped;  // skips what was due meanwhile; otherwise all of it is written at the end
};

struct Scenario {
    int ppm = 0;             // by how much the host's clock is faster than the app's
    int blockFrames = 480;   // of one write
    Ns jitter = 0;           // each write is late by up to this, uniformly distributed
    Ns phase = 5 * kMs / 2;  // of the first write, from the start of the host's stream
    uint64_t seed = 0;       // decides how late each write is
    std::vector<Pause> pauses;
};

}  // namespace drift
