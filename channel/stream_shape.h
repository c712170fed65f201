// SPDX-License-Identifier: Apache-2.0
// The fixed shape of the daemon's sound, which is signed 16-bit everywhere.
#pragma once

constexpr unsigned SAMPLE_RATE_HZ = 48000;
constexpr unsigned PCM_CHANNELS = 1;  // the gadget card's streams
constexpr int FIFO_CHANNELS = 2;      // the app's FIFOs: interleaved stereo
constexpr int PERIOD_FRAMES = 240;    // 5 ms
