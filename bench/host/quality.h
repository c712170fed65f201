// SPDX-License-Identifier: Apache-2.0
// What a frame buffer does to a tone.
#pragma once

#include "bench/host/contestants.h"

namespace bench {

// The measured frequencies of the tone, in Hz.
inline constexpr std::array kFrequencies = {100.0, 1000.0, 5000.0, 10000.0};

// Total harmonic distortion and noise, in dB relative to the tone. A continuous tone of -1 dBFS
// goes in; every frame is corrected as requested (or not at all), so that the tone comes out a
// 240th lower or higher. The sine of that frequency is fitted by least squares to the second
// second, and the rest is compared with it. Rounding to 16 bits alone leaves about -97 dB.
double distortionOf(const FrameContestant& contestant, Correction correction, double frequency);

}  // namespace bench
