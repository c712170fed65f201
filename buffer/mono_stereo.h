// SPDX-License-Identifier: Apache-2.0
// Between one channel and two, in place. Pure; any thread. Samples are signed 16-bit, the frames of
// stereo interleaved, left sample first; `samples` has room for frames x 2 of them, and frames is
// not negative.
#pragma once

#include <cstdint>

namespace uafd {

// Keeps the left sample of each frame, without mixing. What follows the `frames` mono samples is
// left as it was.
void toMono(int16_t* samples, int frames);

// Doubles each of `frames` mono samples.
void toStereo(int16_t* samples, int frames);

}  // namespace uafd
