// SPDX-License-Identifier: Apache-2.0
// What a simulation of the microphone's path is told: how the app writes and how the clocks differ.
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
    bool
        dropped;  // what was due meanwhile is never written; else it is written at the end, at once
};

struct Scenario {
    int ppm = 0;             // how much faster the host's clock is than the app's
    int blockFrames = 480;   // of one write
    Ns jitter = 0;           // each write comes up to so much late, every lateness as likely
    Ns phase = 5 * kMs / 2;  // of the first write, from the start of the host's stream
    uint64_t seed = 0;       // picks which write comes how late
    std::vector<Pause> pauses;
};

}  // namespace drift
