// SPDX-License-Identifier: Apache-2.0
// A card's samples: one channel of floating-point numbers, -1 to 1, to and from the formats that
// cards have. Any thread.
#pragma once

#include <cstddef>
#include <vector>

#include <alsa/asoundlib.h>

namespace uafd {

// The formats that the functions know, the preferred one first.
const std::vector<snd_pcm_format_t>& knownFormats();

// Writes `frames` frames of `channels` samples, which are all the same, to `bytes`. What is louder
// than full scale is limited to it.
void toCard(const float* mono, size_t frames, snd_pcm_format_t format, unsigned channels,
            unsigned char* bytes);
// Reads the first channel of each frame.
void fromCard(const unsigned char* bytes, size_t frames, snd_pcm_format_t format, unsigned channels,
              float* mono);

}  // namespace uafd
