// SPDX-License-Identifier: Apache-2.0
// A sound card by its ALSA name. What the card offers that comes nearest is taken: 48000 Hz, two
// channels, 16 bits, periods of 5 ms. One thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <alsa/asoundlib.h>

#include "companion/bridge/path.h"

namespace uafd {

// The formats of a card that the functions below know, the preferred one first.
const std::vector<snd_pcm_format_t>& knownFormats();

// From one channel of floating-point numbers, -1 to 1, writes frames of `channels` equal samples to
// `bytes`. What is louder than full scale is limited to it.
void toCard(const float* mono, size_t frames, snd_pcm_format_t format, unsigned channels,
            unsigned char* bytes);
// Reads the first channel of each frame.
void fromCard(const unsigned char* bytes, size_t frames, snd_pcm_format_t format, unsigned channels,
              float* mono);

class AlsaCard final : public Card {
  public:
    AlsaCard(const char* device, bool isPlayback) : device(device), isPlayback(isPlayback) {}

    // Opens the card with a buffer for at least this much sound. 0 or a negative errno.
    int open(double latencyMs);
    void close() { pcm.reset(); }
    bool isOpen() const { return pcm != nullptr; }
    // The card has been unplugged.
    bool isGone() const;
    const std::string& name() const { return device; }
    // "48000 Hz, 2 channels, S16_LE"
    std::string shape() const;

    double rate() const override { return rateHz; }
    size_t periodFrames() const override { return period; }
    size_t bufferFrames() const override { return buffer; }
    int start() override;
    int stop() override;
    int write(const float* samples, size_t frames) override;
    int delay() override;
    int read(float* samples, size_t framesMax) override;

  private:
    struct Closer {
        void operator()(snd_pcm_t* opened) const { snd_pcm_close(opened); }
    };
    int choose(double latencyMs);
    int chooseFormat(snd_pcm_hw_params_t* hardware);
    int chooseSizes(snd_pcm_hw_params_t* hardware, double latencyMs);
    int setStarts();
    unsigned char* bytesFor(size_t frames);

    const std::string device;
    const bool isPlayback;
    std::unique_ptr<snd_pcm_t, Closer> pcm;
    unsigned rateHz = 0;
    unsigned channels = 0;
    snd_pcm_format_t format = SND_PCM_FORMAT_UNKNOWN;
    snd_pcm_uframes_t period = 0;
    snd_pcm_uframes_t buffer = 0;
    std::vector<unsigned char> bytes;
};

}  // namespace uafd
