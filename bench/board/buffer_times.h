// SPDX-License-Identifier: Apache-2.0
// The time that sound spends in each buffer. One thread.
#pragma once

#include "bench/board/options.h"

namespace bench {

// Publishes the table buffer_times: the speaker's among both directions, the microphone's alone.
void measureBufferTimes(const Options& options);

}  // namespace bench
