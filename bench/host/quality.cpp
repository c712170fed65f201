// SPDX-License-Identifier: Apache-2.0
#include <array>
#include <cmath>

#include "bench/host/results.h"

namespace bench {
namespace {

constexpr double kAmplitude = 29204;  // -1 dBFS

class Tone {
  public:
    explicit Tone(double frequency) : step(2 * M_PI * frequency / kRate) {}

    const int16_t* nextBlock() {
        for (int16_t& sample : block) {
            sample = static_cast<int16_t>(std::lround(kAmplitude * std::sin(step * position)));
            position += 1;
        }
        return block.data();
    }

  private:
    const double step;
    double position = 0;
    std::array<int16_t, kBlock> block{};
};

std::vector<double> secondSecond(const FrameContestant& contestant, Correction correction,
                                 double frequency) {
    const std::unique_ptr<FrameJob> job = contestant.make(correction);
    Tone tone(frequency);
    std::vector<double> sound;
    for (int32_t done = 0; done < 2 * kRate; done += kFrame) {
        std::array<int16_t, kFrame> frame;
        job->play([&tone] { return tone.nextBlock(); }, frame.data());
        if (done >= kRate) {
            sound.insert(sound.end(), frame.begin(), frame.end());
        }
    }
    return sound;
}

// sine, cosine and constant
using Basis = std::array<double, 3>;

Basis basisAt(double phase) {
    return {std::sin(phase), std::cos(phase), 1};
}

// The weights with which the basis comes closest to the sound: least squares, solved by Gaussian
// elimination.
Basis fitted(const std::vector<double>& sound, double step) {
    std::array<std::array<double, 4>, 3> rows{};
    for (size_t i = 0; i < sound.size(); i++) {
        const Basis basis = basisAt(step * static_cast<double>(i));
        for (size_t r = 0; r < 3; r++) {
            for (size_t c = 0; c < 3; c++) {
                rows[r][c] += basis[r] * basis[c];
            }
            rows[r][3] += basis[r] * sound[i];
        }
    }
    for (size_t pivot = 0; pivot < 3; pivot++) {
        for (size_t r = 0; r < 3; r++) {
            const double factor = r == pivot ? 0 : rows[r][pivot] / rows[pivot][pivot];
            for (size_t c = 0; c < 4; c++) {
                rows[r][c] -= factor * rows[pivot][c];
            }
        }
    }
    return {rows[0][3] / rows[0][0], rows[1][3] / rows[1][1], rows[2][3] / rows[2][2]};
}

}  // namespace

double distortionOf(const FrameContestant& contestant, Correction correction, double frequency) {
    const std::vector<double> sound = secondSecond(contestant, correction, frequency);
    const double step = 2 * M_PI * frequency / kRate * takenBy(correction) / kFrame;
    const Basis weights = fitted(sound, step);
    double rest = 0;
    for (size_t i = 0; i < sound.size(); i++) {
        const Basis basis = basisAt(step * static_cast<double>(i));
        const double tone = weights[0] * basis[0] + weights[1] * basis[1] + weights[2];
        rest += (sound[i] - tone) * (sound[i] - tone);
    }
    const double tone = (weights[0] * weights[0] + weights[1] * weights[1]) / 2;
    return 10 * std::log10(rest / static_cast<double>(sound.size()) / tone);
}

}  // namespace bench
