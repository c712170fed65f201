// SPDX-License-Identifier: Apache-2.0
// Volume and mute applied to samples, without clicks: a gain that changes at most by 1 in
// kRampFrames. One thread.
#pragma once

#include <cstddef>

namespace uafd {

// The factor of a volume in 1/256 dB; at most 1. The lowest volume of the USB classes is silence.
float factorOf(int volume);

class Gain {
  public:
    static constexpr int kRampFrames = 480;  // from 0 to 1

    void setVolume(int volume) { volumeFactor = factorOf(volume); }
    void setMute(bool mute) { isMuted = mute; }
    // Begins again from silence.
    void fadeIn() { current = 0; }
    void apply(float* samples, size_t count);

  private:
    float volumeFactor = 1;
    bool isMuted = false;
    float current = 0;
};

}  // namespace uafd
