// SPDX-License-Identifier: Apache-2.0
// What a soak measured, as text whose parts can be added up, and which of it is wrong.
#pragma once

#include <string>
#include <vector>

#include "tests/board/soak/soak.h"

namespace board {

// Lines "KEY VALUE...": counts add up, latencies come as histograms (see latencies.h).
std::string reportOf(const Soak& soak);
// One sentence for each thing that is wrong; none when the daemon did everything right.
std::vector<std::string> problemsOf(const Soak& soak);

}  // namespace board
