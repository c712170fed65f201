// SPDX-License-Identifier: Apache-2.0
// The fixed shape of the daemon's sound, which is signed 16-bit everywhere.
#pragma once

namespace uafd {

constexpr unsigned kSampleRateHz = 48000;
constexpr unsigned kPcmChannels = 1;  // the gadget card's streams
constexpr int kFifoChannels = 2;      // the app's FIFOs: interleaved stereo
constexpr int kPeriodFrames = 240;    // 5 ms

}  // namespace uafd
