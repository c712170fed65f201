// SPDX-License-Identifier: Apache-2.0
#include "companion/bridge/sample_format.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace uafd {
namespace {

constexpr double kFullScale = 2147483648.0;  // of 32 bits

int32_t quantised(float sample, unsigned bits) {
    const double step = std::ldexp(1.0, static_cast<int>(bits) - 1);
    return static_cast<int32_t>(std::clamp<double>(std::nearbyint(sample * step), -step, step - 1));
}

// Little-endian, as every format here is.
void store(uint32_t value, size_t size, unsigned char* bytes) {
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

uint32_t load(const unsigned char* bytes, size_t size) {
    uint32_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value |= static_cast<uint32_t>(bytes[i]) << (8 * i);
    }
    return value;
}

size_t sizeOf(snd_pcm_format_t format) {
    return static_cast<size_t>(snd_pcm_format_physical_width(format)) / 8;
}

void storeSample(float sample, snd_pcm_format_t format, size_t size, unsigned char* bytes) {
    uint32_t value = 0;
    if (format == SND_PCM_FORMAT_FLOAT_LE) {
        sample = std::clamp(sample, -1.0F, 1.0F);
        memcpy(&value, &sample, sizeof value);
    } else {
        value = static_cast<uint32_t>(
            quantised(sample, static_cast<unsigned>(snd_pcm_format_width(format))));
    }
    store(value, size, bytes);
}

float loadSample(snd_pcm_format_t format, size_t size, const unsigned char* bytes) {
    uint32_t value = load(bytes, size);
    float sample = 0;
    if (format == SND_PCM_FORMAT_FLOAT_LE) {
        memcpy(&sample, &value, sizeof sample);
        return sample;
    }
    // The sample's highest bit becomes the highest of 32; what a format leaves unused falls out.
    value <<= 32 - static_cast<unsigned>(snd_pcm_format_width(format));
    return static_cast<float>(static_cast<int32_t>(value) / kFullScale);
}

}  // namespace

const std::vector<snd_pcm_format_t>& knownFormats() {
    static const std::vector<snd_pcm_format_t> kFormats = {
        SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S32_LE, SND_PCM_FORMAT_S24_LE, SND_PCM_FORMAT_S24_3LE,
        SND_PCM_FORMAT_FLOAT_LE};
    return kFormats;
}

void toCard(const float* mono, size_t frames, snd_pcm_format_t format, unsigned channels,
            unsigned char* bytes) {
    const size_t size = sizeOf(format);
    for (size_t frame = 0; frame < frames; ++frame) {
        for (unsigned channel = 0; channel < channels; ++channel, bytes += size) {
            storeSample(mono[frame], format, size, bytes);
        }
    }
}

void fromCard(const unsigned char* bytes, size_t frames, snd_pcm_format_t format, unsigned channels,
              float* mono) {
    const size_t size = sizeOf(format);
    for (size_t frame = 0; frame < frames; ++frame, bytes += size * channels) {
        mono[frame] = loadSample(format, size, bytes);
    }
}

}  // namespace uafd
