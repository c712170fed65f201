// SPDX-License-Identifier: Apache-2.0
// The arithmetic of the frame stream buffer: a few samples more or fewer than a frame, stretched or
// squeezed to the frame by linear interpolation. Pure: numbers in, numbers out, on any thread.
// Positions among the samples taken are unsigned 16.16 fixed point; no floating point per sample.
#pragma once

#include <cstdint>

namespace uafd {

// How far one output sample moves through `count` input samples, so that the first and the last of
// both coincide. 0 where a frame of 1 leaves that undefined or negative, the largest step where it
// is infinite.
uint32_t resampleStep(int32_t count, int32_t frameSize);

// Makes the frameSize samples of `out` from the count samples of `in`, where count is frameSize + 1
// or frameSize - 1, at least 1, and step is theirs from resampleStep. The two do not overlap.
void resample(const int16_t* in, int32_t count, uint32_t step, int16_t* out, int32_t frameSize);

}  // namespace uafd
