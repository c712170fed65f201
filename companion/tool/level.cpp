#include "companion/tool/level.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kFullScale = 32767;
constexpr double kBarDb = -kSilenceDb / 2;

}  // namespace

double amplitudeOf(double levelDb) {
    return kFullScale * std::pow(10, levelDb / 20);
}

double levelOf(double amplitude) {
    return amplitude > 0 ? std::max(kSilenceDb, 20 * std::log10(amplitude / kFullScale))
                         : kSilenceDb;
}

std::string barOf(double levelDb, int width) {
    const double part = std::clamp(1 + levelDb / kBarDb, 0.0, 1.0);
    const auto full = static_cast<size_t>(std::lround(part * width));
    return std::string(full, '#') + std::string(static_cast<size_t>(width) - full, ' ');
}
