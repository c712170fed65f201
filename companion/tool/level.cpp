// SPDX-License-Identifier: Apache-2.0
#include "companion/tool/level.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace uafd {
namespace {

constexpr double kSilenceDb = -96;  // the quietest level of 16 bits
constexpr double kBarDb = 48;       // the range of the bar, from empty to full

double levelOf(double amplitude) {
    return amplitude > 0 ? std::max(kSilenceDb, 20 * std::log10(amplitude / INT16_MAX))
                         : kSilenceDb;
}

}  // namespace

void Level::add(const int16_t* samples, int frames) {
    for (int i = 0; i < frames; ++i) {
        const double sample = samples[2 * i];
        peak = std::max(peak, std::abs(sample));
        squares += sample * sample;
    }
    frameCount += frames;
}

double Level::peakDb() const {
    return levelOf(peak);
}

double Level::rmsDb() const {
    return frameCount == 0 ? kSilenceDb
                           : levelOf(std::sqrt(squares / static_cast<double>(frameCount)));
}

std::string barOf(double levelDb, int width) {
    const double part = std::clamp(1 + levelDb / kBarDb, 0.0, 1.0);
    std::string bar(static_cast<size_t>(std::lround(part * width)), '#');
    bar.resize(static_cast<size_t>(width), ' ');
    return bar;
}

}  // namespace uafd
