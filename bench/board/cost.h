// SPDX-License-Identifier: Apache-2.0
// What the daemon and its peers cost on the gadget card. One thread.
#pragma once

#include "bench/board/options.h"

namespace bench {

// Each publishes one table with its name: the subjects stream one after the other. Throws when one
// does not stream.
void measureSpeaker(const Options& options);
void measureMicrophone(const Options& options);
void measureBoth(const Options& options);

}  // namespace bench
