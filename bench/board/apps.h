// SPDX-License-Identifier: Apache-2.0
// What programs cost that are the daemon's app: over the library, and as users of the ALSA device.
// One thread.
#pragma once

#include "bench/board/options.h"

namespace bench {

// Each publishes one table with its name: the programs stream one after the other. Throws when one
// does not stream.
void measureAppsRecording(const Options& options);
void measureAppsPlaying(const Options& options);

}  // namespace bench
