// SPDX-License-Identifier: Apache-2.0
#include "companion/bridge/alsa_card.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace uafd {
namespace {

constexpr unsigned kRate = 48000;
constexpr unsigned kChannels = 2;
constexpr unsigned kPeriodUs = 5000;
constexpr double kBufferToLatency = 4;  // room for clocks, and for sound that comes at once
constexpr double kUsPerMs = 1000;

// ---- Samples -----------------------------------------------------------------------------------

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

// ---- The card ----------------------------------------------------------------------------------

int AlsaCard::open(double latencyMs) {
    snd_pcm_t* opened = nullptr;
    int result = snd_pcm_open(&opened, device.c_str(),
                              isPlayback ? SND_PCM_STREAM_PLAYBACK : SND_PCM_STREAM_CAPTURE,
                              SND_PCM_NONBLOCK);
    if (result < 0) {
        return result;
    }
    pcm.reset(opened);
    result = choose(latencyMs);
    if (result < 0) {
        close();
    }
    return result;
}

int AlsaCard::choose(double latencyMs) {
    snd_pcm_hw_params_t* hardware = nullptr;
    snd_pcm_hw_params_alloca(&hardware);
    int result = snd_pcm_hw_params_any(pcm.get(), hardware);
    if (result >= 0) {
        result = chooseFormat(hardware);
    }
    if (result >= 0) {
        result = chooseSizes(hardware, latencyMs);
    }
    if (result >= 0) {
        result = snd_pcm_hw_params(pcm.get(), hardware);
    }
    return result < 0 ? result : setStarts();
}

int AlsaCard::chooseFormat(snd_pcm_hw_params_t* hardware) {
    int result = snd_pcm_hw_params_set_access(pcm.get(), hardware, SND_PCM_ACCESS_RW_INTERLEAVED);
    if (result < 0) {
        return result;
    }
    const auto& formats = knownFormats();
    const auto offered = std::find_if(formats.begin(), formats.end(), [&](snd_pcm_format_t known) {
        return snd_pcm_hw_params_set_format(pcm.get(), hardware, known) == 0;
    });
    if (offered == formats.end()) {
        return -EINVAL;
    }
    format = *offered;
    // The bridge resamples better than ALSA does, and has to anyway.
    result = snd_pcm_hw_params_set_rate_resample(pcm.get(), hardware, 0);
    channels = kChannels;
    if (result >= 0) {
        result = snd_pcm_hw_params_set_channels_near(pcm.get(), hardware, &channels);
    }
    rateHz = kRate;
    return result < 0 ? result
                      : snd_pcm_hw_params_set_rate_near(pcm.get(), hardware, &rateHz, nullptr);
}

int AlsaCard::chooseSizes(snd_pcm_hw_params_t* hardware, double latencyMs) {
    unsigned periodUs = kPeriodUs;
    auto bufferUs = static_cast<unsigned>(kBufferToLatency * latencyMs * kUsPerMs);
    int result = snd_pcm_hw_params_set_period_time_near(pcm.get(), hardware, &periodUs, nullptr);
    if (result >= 0) {
        result = snd_pcm_hw_params_set_buffer_time_near(pcm.get(), hardware, &bufferUs, nullptr);
    }
    if (result >= 0) {
        result = snd_pcm_hw_params_get_period_size(hardware, &period, nullptr);
    }
    return result < 0 ? result : snd_pcm_hw_params_get_buffer_size(hardware, &buffer);
}

// The card starts when it is told to, and not before.
int AlsaCard::setStarts() {
    snd_pcm_sw_params_t* software = nullptr;
    snd_pcm_sw_params_alloca(&software);
    snd_pcm_uframes_t boundary = 0;
    int result = snd_pcm_sw_params_current(pcm.get(), software);
    if (result >= 0) {
        result = snd_pcm_sw_params_get_boundary(software, &boundary);
    }
    if (result >= 0) {
        result = snd_pcm_sw_params_set_start_threshold(pcm.get(), software, boundary);
    }
    return result < 0 ? result : snd_pcm_sw_params(pcm.get(), software);
}

bool AlsaCard::isGone() const {
    return snd_pcm_state(pcm.get()) == SND_PCM_STATE_DISCONNECTED;
}

std::string AlsaCard::shape() const {
    return std::to_string(rateHz) + " Hz, " + std::to_string(channels) +
           (channels == 1 ? " channel, " : " channels, ") + snd_pcm_format_name(format);
}

int AlsaCard::start() {
    return snd_pcm_start(pcm.get());
}

int AlsaCard::stop() {
    const int result = snd_pcm_drop(pcm.get());
    return result < 0 ? result : snd_pcm_prepare(pcm.get());
}

unsigned char* AlsaCard::bytesFor(size_t frames) {
    const auto frameBytes =
        static_cast<size_t>(snd_pcm_format_physical_width(format)) / 8 * channels;
    if (bytes.size() < frames * frameBytes) {
        bytes.resize(frames * frameBytes);
    }
    return bytes.data();
}

int AlsaCard::write(const float* samples, size_t frames) {
    unsigned char* const out = bytesFor(frames);
    toCard(samples, frames, format, channels, out);
    const snd_pcm_sframes_t written = snd_pcm_writei(pcm.get(), out, frames);
    if (written < 0) {
        return static_cast<int>(written);
    }
    return written == static_cast<snd_pcm_sframes_t>(frames) ? 0 : -EPIPE;
}

int AlsaCard::delay() {
    snd_pcm_sframes_t frames = 0;
    const int result = snd_pcm_delay(pcm.get(), &frames);
    return result < 0 ? result : std::max(static_cast<int>(frames), 0);
}

int AlsaCard::read(float* samples, size_t framesMax) {
    const snd_pcm_sframes_t available = snd_pcm_avail(pcm.get());
    if (available <= 0) {
        return static_cast<int>(available);
    }
    const size_t frames = std::min(framesMax, static_cast<size_t>(available));
    unsigned char* const in = bytesFor(frames);
    const snd_pcm_sframes_t got = snd_pcm_readi(pcm.get(), in, frames);
    if (got > 0) {
        fromCard(in, static_cast<size_t>(got), format, channels, samples);
    }
    return got == -EAGAIN ? 0 : static_cast<int>(got);
}

}  // namespace uafd
