// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/tone.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace board {
namespace {

constexpr int64_t kTurns = 1361;  // over all places; odd, so that no place repeats. 997 Hz
constexpr double kAmplitude = 12000;
constexpr int64_t kProbeMin = 16;
constexpr int64_t kProbeMax = 48;
// A stretched frame is flatter by a 240th, which bends the tone where two frames meet; a squeezed
// one is steeper. Each of the three samples is rounded.
constexpr int kBendSlack = 16;
constexpr int64_t kClickFrames = 240;  // bends closer together than this are one click

// The largest second difference of the tone itself.
int ownBend() {
    const double step = 2 * M_PI * static_cast<double>(kTurns) / static_cast<double>(Tone::kPlaces);
    return static_cast<int>(std::ceil(kAmplitude * step * step)) + 2;
}

}  // namespace

Tone::Tone() : table(static_cast<size_t>(kPlaces + kStretch)) {
    for (size_t i = 0; i < table.size(); ++i) {
        const auto turns = static_cast<double>(static_cast<int64_t>(i) * kTurns % kPlaces);
        table[i] = static_cast<int16_t>(
            std::lround(kAmplitude * std::sin(2 * M_PI * turns / static_cast<double>(kPlaces))));
    }
}

bool Tone::displacement(int64_t frame, const int16_t* samples, int64_t count,
                        int64_t* frames) const {
    if (count < kProbeMin) {
        return false;
    }
    const auto probe = static_cast<size_t>(std::min(count, kProbeMax));
    const auto places = table.begin() + static_cast<std::ptrdiff_t>(kPlaces + kProbeMax);
    const auto found = std::search(table.begin(), places, samples, samples + probe);
    if (found == places) {
        return false;
    }
    const auto forwards =
        static_cast<int64_t>(static_cast<uint64_t>((found - table.begin()) - frame) % kPlaces);
    *frames = forwards < kPlaces / 2 ? forwards : forwards - kPlaces;
    return true;
}

const Tone& tone() {
    static const Tone kOnly;
    return kOnly;
}

int64_t ClickCounter::add(const int16_t* samples, int64_t count) {
    static const int kLimit = ownBend() + kBendSlack;
    int64_t clicks = 0;
    for (int64_t i = 0; i < count; ++i, ++at) {
        const int sample = samples[i];
        if (std::abs(sample - 2 * last + beforeLast) > kLimit) {
            clicks += at - lastBendAt > kClickFrames ? 1 : 0;
            lastBendAt = at;
        }
        beforeLast = last;
        last = sample;
    }
    return clicks;
}

}  // namespace board
