// SPDX-License-Identifier: Apache-2.0
// The disturbances of a soak: an app that is late or does not read for a moment, xruns, a host that
// stops for a moment or closes its streams.
#pragma once

#include <cstdint>
#include <string>

#include "board/kit/board.h"
#include "board/kit/clock.h"

namespace board {

enum class DisturbanceKind {
    kAppLate,       // the app writes nothing, and then what it should have written
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
    Ns length;  // 0 of an xrun
};

// The `number`th disturbance of the soak with this seed; the kinds come in turn.
Disturbance disturbanceOf(int64_t seed, int64_t number);
const char* nameOf(DisturbanceKind kind);

// Does it to the board and returns when it is over.
void disturb(Board* board, const Disturbance& disturbance);

}  // namespace board
