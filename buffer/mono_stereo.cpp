// SPDX-License-Identifier: Apache-2.0
#include "buffer/mono_stereo.h"

#include <cstring>

namespace uafd {
namespace {

// A conversion copies this many frames out of the buffer before it writes their result there.
// Directly in place, the compiler could not use the processor's vectors, which convert such a block
// in a few instructions.
constexpr int kBlockFrames = 16;

}  // namespace

void toMono(int16_t* samples, int frames) {
    int i = 0;
    for (; i <= frames - kBlockFrames; i += kBlockFrames) {
        int16_t stereo[2 * kBlockFrames];
        int16_t mono[kBlockFrames];
        memcpy(stereo, samples + 2 * i, sizeof stereo);
        for (int k = 0; k < kBlockFrames; ++k) {
            mono[k] = stereo[2 * k];
        }
        memcpy(samples + i, mono, sizeof mono);
    }
    for (; i < frames; ++i) {
        samples[i] = samples[2 * i];
    }
}

// Backwards, so that no sample is overwritten before it is read.
void toStereo(int16_t* samples, int frames) {
    int i = frames;
    for (; i >= kBlockFrames; i -= kBlockFrames) {
        int16_t mono[kBlockFrames];
        int16_t stereo[2 * kBlockFrames];
        memcpy(mono, samples + i - kBlockFrames, sizeof mono);
        for (int k = 0; k < kBlockFrames; ++k) {
            stereo[2 * k] = mono[k];
            stereo[2 * k + 1] = mono[k];
        }
        memcpy(samples + 2 * (i - kBlockFrames), stereo, sizeof stereo);
    }
    for (--i; i >= 0; --i) {
        samples[2 * i + 1] = samples[i];
        samples[2 * i] = samples[i];
    }
}

}  // namespace uafd
