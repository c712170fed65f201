// SPDX-License-Identifier: Apache-2.0
// How soon the daemon acts, and where a sound's time goes on its way. One thread.
#pragma once

#include "bench/board/options.h"

namespace bench {

// Publishes the tables latency, of single acts, and ways, of the sound from end to end and of each
// buffer on the way.
void measureLatency(const Options& options);

}  // namespace bench
