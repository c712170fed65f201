// SPDX-License-Identifier: Apache-2.0
// What a scenario does to the sound. Pure; one thread.
#pragma once

#include <functional>

#include "board/kit/statistics.h"
#include "tools/drift/mic_simulation.h"
#include "tools/drift/scenario.h"

namespace drift {

// By then a stream's depth and latency are in their ranges, whatever the clocks' difference is.
constexpr Ns kSettling = 3 * kSecond;

struct Measured {
    // These count from kSettling on.
    board::Spread depth;    // of the frame buffer before a read, ns of sound
    board::Spread latency;  // of the app's samples
    double stretchesPerSecond = 0;
    double squeezesPerSecond = 0;
    // Counts from the beginning.
    Counts counts;
};

using Look = std::function<void(const Reading& reading, const Counts& counts)>;

// Simulates the scenario for `time` and passes every read to `look`, if there is one.
Measured measure(const Scenario& scenario, Ns time, const Look& look = {});

}  // namespace drift
