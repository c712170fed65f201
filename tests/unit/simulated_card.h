// SPDX-License-Identifier: Apache-2.0
// A sound card with a clock of its own, in simulated time. Its position is a function of the time,
// as the card tells it: in steps. It keeps what it has played, and hears a tone. One thread.
#pragma once

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <vector>

#include "companion/bridge/path.h"

namespace uafd {

class SimulatedCard final : public Card {
  public:
    explicit SimulatedCard(const int64_t* nowNs, double nominalRate = 48000)
        : nominalRate(nominalRate), nowNs(nowNs) {}

    double rate() const override { return nominalRate; }
    size_t periodFrames() const override { return static_cast<size_t>(nominalRate / 200); }
    size_t bufferFrames() const override {
        return static_cast<size_t>(nominalRate / 1000 * bufferMs);
    }

    int start() override {
        if (error != 0) {
            return error;
        }
        ++starts;
        isRunning = true;
        startNs = *nowNs;
        return 0;
    }
    int stop() override {
        isRunning = false;
        ++stops;
        transferred = 0;
        return error;
    }
    int write(const float* samples, size_t frames) override {
        const int result = error != 0 ? error : state();
        if (result < 0) {
            return result;
        }
        played.insert(played.end(), samples, samples + frames);
        transferred += static_cast<int64_t>(frames);
        return 0;
    }
    int delay() override {
        const int result = error != 0 ? error : state();
        return result < 0 ? result : static_cast<int>(transferred - position());
    }
    int read(float* samples, size_t framesMax) override {
        const int64_t end = position();
        const int64_t available = end - transferred;
        if (error != 0 || available > static_cast<int64_t>(bufferFrames())) {
            return error != 0 ? error : -EPIPE;
        }
        size_t count = 0;
        for (; count < framesMax && transferred < end; ++count, ++transferred) {
            samples[count] = heard(transferred);
        }
        return static_cast<int>(count);
    }

    // What the test sets.
    double ppm = 0;
    double stepMs = 1;  // of the position that the card tells
    double bufferMs = 80;
    int error = 0;  // of every call

    int starts = 0;
    int stops = 0;
    std::vector<float> played;

  private:
    int64_t position() const {
        if (!isRunning) {
            return 0;
        }
        const double ms = static_cast<double>(*nowNs - startNs) / 1e6;
        return static_cast<int64_t>(std::floor(ms / stepMs) * stepMs * nominalRate / 1000 *
                                    (1 + ppm / 1e6));
    }
    int state() const { return isRunning && position() > transferred ? -EPIPE : 0; }
    // The tone is what it is for everyone; a fast card has more samples of it.
    float heard(int64_t frame) const {
        const double seconds = static_cast<double>(frame) / (nominalRate * (1 + ppm / 1e6));
        return 0.5F * static_cast<float>(std::sin(2 * M_PI * kToneHz * seconds));
    }

    static constexpr double kToneHz = 1000;

    const double nominalRate;
    const int64_t* const nowNs;
    bool isRunning = false;
    int64_t startNs = 0;
    int64_t transferred = 0;  // since the start
};

// The largest second difference in [from, to): a click is a large one.
inline double largestBend(const std::vector<float>& sound, size_t from, size_t to) {
    double largest = 0;
    for (size_t i = from + 2; i < to; ++i) {
        largest = std::max(
            largest, std::abs(static_cast<double>(sound[i]) - 2.0 * sound[i - 1] + sound[i - 2]));
    }
    return largest;
}

}  // namespace uafd
