// SPDX-License-Identifier: Apache-2.0
#include "companion/bridge/gain.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace uafd {
namespace {

constexpr float kStep = 1.0F / Gain::kRampFrames;
constexpr float kUnitsPerDb = 256;

}  // namespace

float factorOf(int volume) {
    return volume <= INT16_MIN
               ? 0
               : std::pow(10.0F, static_cast<float>(std::min(volume, 0)) / kUnitsPerDb / 20);
}

void Gain::apply(float* samples, size_t count) {
    const float target = isMuted ? 0 : volumeFactor;
    for (size_t i = 0; i < count; ++i) {
        current = std::clamp(target, current - kStep, current + kStep);
        samples[i] *= current;
    }
}

}  // namespace uafd
