// SPDX-License-Identifier: Apache-2.0
// The sink channel's start synchronisation: which captured period is the first one written to the
// app. Writing starts on a 10 ms grid that is anchored where the board's own microphone capture
// started, so that the app's two streams keep a fixed phase. Periods before that are dropped.
//
// Called from the sink's worker only; one sink exists, so the start time and the remaining tries
// are process-wide. Logs under the sink's tag, "UAFSNK".
#pragma once

#include <cstdint>

namespace uafd {

enum SynchState : int32_t {
    SYNCH_NOT_STARTED = 0,  // nothing done yet
    SYNCH_WAITING = 1,      // start time known, waiting for the right phase
    SYNCH_FINISHED = 2,     // write; reached by success and by failure
};

// One for each execution of the sink's loop.
struct SynchStartupState {
    int32_t state = SYNCH_NOT_STARTED;  // SynchState
};

constexpr int32_t kSynchTries = 600;  // periods held back or missing, after which it gives up
constexpr int64_t kSynchGridNs = 10000000;
constexpr int64_t kSynchHoldFromNs = 3500000;     // phases from here ...
constexpr uint64_t kSynchHoldLengthNs = 5000000;  // ... for this long are held back

// When the board's own microphone capture started, in nanoseconds of CLOCK_REALTIME, from its ALSA
// status file; -1, logged, when no running capture with a time stamp is found.
int64_t micCaptureTimestamp();

// Decides on the period just read, `frames` frames or 0 after a timeout: 0 = write it, 1 = drop it,
// -1 = synchronisation failed just now, write it and all that follow. Logs the end of the
// synchronisation: "synch startup ok" (debug) or "synch startup failed" (error).
int synchStartup(int frames, SynchStartupState* state);

}  // namespace uafd
