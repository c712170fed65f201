// SPDX-License-Identifier: Apache-2.0
// What both directions of the bridge have: a card, a resampler that follows the clocks, volume, and
// what they count and tell. One thread.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "companion/bridge/fill_control.h"
#include "companion/bridge/gain.h"
#include "companion/bridge/resampler.h"

namespace uafd {

// One direction of a sound card: one channel, counted in frames of the card's rate, and nothing
// that waits. Results below 0 are negative errnos; -EPIPE is an xrun, after which stop() makes the
// card ready again. After any other the card is of no use any more.
class Card {
  public:
    virtual ~Card() = default;

    virtual double rate() const = 0;
    virtual size_t periodFrames() const = 0;
    virtual size_t bufferFrames() const = 0;

    // A playback starts with what was written before.
    virtual int start() = 0;
    // Drops what is in the buffer.
    virtual int stop() = 0;
    // Writes all of them, which must fit.
    virtual int write(const float* samples, size_t frames) = 0;
    // Frames written that have not been heard.
    virtual int delay() = 0;
    // Returns how many frames it has read, 0 when there are none at present.
    virtual int read(float* samples, size_t framesMax) = 0;
};

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

class Path {
  public:
    Gain gain;
    // The largest sample since the last call, 1 is full scale.
    float takePeak() { return peak.take(); }

  protected:
    // `latencyMs`: the sound to hold ready.
    explicit Path(double latencyMs) : latencyMs(latencyMs) {}
    ~Path() = default;

    // Tells the control loop what is held now.
    void steer(int64_t nowNs) {
        control->update(static_cast<double>(filled) - static_cast<double>(target),
                        static_cast<double>(nowNs - controlNs) / kNsPerSecond);
        controlNs = nowNs;
    }

    const double latencyMs;
    Card* card = nullptr;
    Resampler resampler;
    std::optional<FillControl> control;
    size_t target = 0;       // frames to be held ready
    size_t filled = 0;       // frames that were held last
    int64_t controlNs = 0;   // when the control loop was last asked
    bool isRunning = false;  // the card
    PathCounts counts;
    Peak peak;
};

}  // namespace uafd
