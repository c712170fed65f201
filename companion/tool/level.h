// SPDX-License-Identifier: Apache-2.0
// The level of the host's sound, in dB relative to full scale. One thread.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace uafd {

class Level {
  public:
    // `frames` stereo frames, whose channels are equal.
    void add(const int16_t* samples, int frames) {
        for (int i = 0; i < frames; ++i) {
            const double sample = samples[2 * i];
            peak = std::max(peak, std::abs(sample));
            squares += sample * sample;
        }
        frameCount += frames;
    }
    void reset() { *this = Level(); }

    // Of everything since the last reset; of silence, or of nothing, the quietest level of 16 bits.
    double peakDb() const { return levelOf(peak); }
    double rmsDb() const {
        return levelOf(std::sqrt(squares / static_cast<double>(std::max<int64_t>(frameCount, 1))));
    }

  private:
    static double levelOf(double amplitude) {
        constexpr double silenceDb = -96;  // the quietest level of 16 bits
        return amplitude > 0 ? std::max(silenceDb, 20 * std::log10(amplitude / INT16_MAX))
                             : silenceDb;
    }

    double peak = 0;
    double squares = 0;
    int64_t frameCount = 0;
};

// The level as a bar of '#' that is this wide, filled up with spaces.
inline std::string barOf(double levelDb, int width) {
    constexpr double rangeDb = 48;  // from empty to full
    const double part = std::clamp(1 + levelDb / rangeDb, 0.0, 1.0);
    std::string bar(static_cast<size_t>(std::lround(part * width)), '#');
    bar.resize(static_cast<size_t>(width), ' ');
    return bar;
}

}  // namespace uafd
