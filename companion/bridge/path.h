// SPDX-License-Identifier: Apache-2.0
// What both directions count and tell.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace uafd {

struct PathCounts {
    int64_t xruns = 0;
    int64_t lostFrames = 0;  // dropped because there were too many
};

struct PathFacts {
    bool isRunning = false;
    double latencyMs = 0;  // in the bridge and in the card's buffer
    double ppm = 0;        // how much faster the card's clock is than the other
    PathCounts counts;
};

// The largest sample of a stretch of sound.
class Peak {
  public:
    void hear(const float* samples, size_t count) {
        for (size_t i = 0; i < count; ++i) {
            largest = std::max(largest, std::abs(samples[i]));
        }
    }
    // Begins a new stretch.
    float take() {
        const float taken = largest;
        largest = 0;
        return taken;
    }

  private:
    float largest = 0;
};

constexpr double kPpm = 1e6;
constexpr double kNsPerSecond = 1e9;

}  // namespace uafd
