// SPDX-License-Identifier: Apache-2.0
// How soon the daemon responds, and the time that sound spends in each buffer. One thread.
#pragma once

#include "bench/board/options.h"

namespace bench {

// Publishes the tables latency, of single actions, and buffer_times, of the sound from end to end
// and in each buffer.
void measureLatency(const Options& options);

}  // namespace bench
