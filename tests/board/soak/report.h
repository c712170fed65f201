// SPDX-License-Identifier: Apache-2.0
// What a soak measured, as text that adds up with others, and what of it must not be.
#pragma once

#include <string>
#include <vector>

#include "tests/board/soak/soak.h"

namespace board {

// Lines "KEY VALUE...": counts add up, latencies come as histograms (see latencies.h).
std::string reportOf(const Soak& soak);
// One sentence for each thing that is wrong; none when the daemon did all that it is to do.
std::vector<std::string> problemsOf(const Soak& soak);

}  // namespace board
