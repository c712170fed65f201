// SPDX-License-Identifier: Apache-2.0
// Where the daemon's instructions go. One thread.
#pragma once

#include "bench/board/options.h"

namespace bench {

// Publishes the tables profile_calls, by the call that the daemon made, and profile_functions, by
// the function that ran, while both directions stream. Debian's libraries have lost the names of
// what they do not export: such a function bears the name of the exported one before it.
void measureProfile(const Options& options);

}  // namespace bench
