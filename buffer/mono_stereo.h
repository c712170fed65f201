// SPDX-License-Identifier: Apache-2.0
// Converts between mono and stereo, in place. Pure; any thread. Samples are signed 16-bit, stereo
// frames interleaved, left sample first; `samples` has room for frames x 2 samples, and frames is
// not negative.
#pragma once

#include <cstdint>

namespace uafd {

// Keeps the left sample of each frame, without mixing. The memory after the `frames` mono samples
// is left unchanged.
void toMono(int16_t* samples, int frames);

// Doubles each of `frames` mono samples.
void toStereo(int16_t* samples, int frames);

}  // namespace uafd
