// SPDX-License-Identifier: Apache-2.0
// How the daemon's cost grows with its load. One thread.
#pragma once

#include "bench/board/options.h"

namespace bench {

// Publishes the table growth: against the rate of the app's messages and of the host's events, the
// number of pending messages, the size of the app's writes, and the time it has run.
void measureGrowth(const Options& options);

}  // namespace bench
