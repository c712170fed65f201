// SPDX-License-Identifier: Apache-2.0
// Volume and mute applied to samples, without clicks: a gain that changes at most by 1 in
// kRampFrames. One thread.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace uafd {

// The factor of a volume in 1/256 dB; at most 1. The lowest volume of the USB classes is silence.
inline float factorOf(int volume) {
    constexpr float unitsPerDb = 256;
    return volume <= INT16_MIN
               ? 0
               : std::pow(10.0F, static_cast<float>(std::min(volume, 0)) / unitsPerDb / 20);
}

class Gain {
  public:
    static constexpr int kRampFrames = 480;  // from 0 to 1

    void setVolume(int volume) { volumeFactor = factorOf(volume); }
    void setMute(bool mute) { isMuted = mute; }
    // Begins again from silence.
    void fadeIn() { current = 0; }
    void apply(float* samples, size_t count) {
        constexpr float step = 1.0F / kRampFrames;
        const float target = isMuted ? 0 : volumeFactor;
        for (size_t i = 0; i < count; ++i) {
            current = std::clamp(target, current - step, current + step);
            samples[i] *= current;
        }
    }

  private:
    float volumeFactor = 1;
    bool isMuted = false;
    float current = 0;
};

}  // namespace uafd
