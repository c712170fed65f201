// SPDX-License-Identifier: Apache-2.0
// The interpolation of a frame of 240 samples, written by hand for SSE2 and NEON.
#pragma once

#include <cstdint>

namespace bench {

// Makes the 240 samples of `out` from the `count` samples of `in`, 239 or 241, exactly as the frame
// buffer does: a + (((b - a) * fraction + 32768) >> 16).
void interpolateSimd(const int16_t* in, int32_t count, int16_t* out);

}  // namespace bench
