// SPDX-License-Identifier: Apache-2.0
// The disturbances of a soak: an app that is late or stops reading for a moment, xruns, a host that
// pauses or closes its streams.
#pragma once

#include <cstdint>
#include <string>

#include "board/kit/board.h"
#include "board/kit/clock.h"

namespace board {

enum class DisturbanceKind {
    kAppLate,       // the app pauses its writes, then catches up
    kAppDeaf,       // the app reads nothing
    kMicXrun,       // the playback stops with an xrun
    kSpeakerXrun,   // the capture does
    kMicStall,      // the host takes nothing
    kSpeakerStall,  // the host sends nothing
    kMicOff,        // the host closes its microphone and opens it again
    kSpeakerOff,    // the same of its speaker
};
constexpr int kDisturbanceKinds = 8;

struct Disturbance {
    DisturbanceKind kind;
    Ns length;  // 0 for an xrun
};

// Disturbance `number` of the soak with this seed; the kinds take turns.
Disturbance disturbanceOf(int64_t seed, int64_t number);
const char* nameOf(DisturbanceKind kind);

// Disturbs the board; returns when the disturbance is over.
void disturb(Board* board, const Disturbance& disturbance);

}  // namespace board
