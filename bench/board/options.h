// SPDX-License-Identifier: Apache-2.0
// How a section of the benchmark is measured.
#pragma once

#include <cstddef>

#include "board/kit/clock.h"

namespace bench {

struct Options {
    board::Ns measured;  // how long each stream runs after its settling
    size_t subjects;     // how many of each comparison, from the first on
};

}  // namespace bench
