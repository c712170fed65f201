// SPDX-License-Identifier: Apache-2.0
// The hand-written floor does the daemon's job: it makes the same frames, whether stretched,
// squeezed or plain.
#include <array>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "bench/host/contestants.h"
#include "buffer/resample.h"

namespace {

using bench::Correction;
using bench::kBlock;
using bench::kFrame;
using Frame = std::array<int16_t, bench::kFrame>;

constexpr int32_t kFrames = 1000;

// Noise that contains steps over the whole range, up and down.
std::vector<int16_t> harshNoise(size_t n) {
    std::mt19937 random(20240229);
    std::vector<int16_t> noise(n);
    for (int16_t& sample : noise) {
        const auto value = static_cast<int16_t>(random());
        sample = random() % 4 != 0 ? value : value < 0 ? int16_t{INT16_MIN} : int16_t{INT16_MAX};
    }
    return noise;
}

std::vector<Frame> framesOf(const char* name, Correction correction) {
    const std::vector<int16_t> noise = harshNoise(size_t{kFrames + 2 * kBlock / kFrame} * kBlock);
    const int16_t* next = noise.data();
    std::vector<Frame> frames(kFrames);
    for (const bench::FrameContestant& contestant : bench::ownFrameBuffers()) {
        if (contestant.name == name) {
            const auto job = contestant.make(correction);
            for (Frame& frame : frames) {
                job->play([&next] { return (next += kBlock) - kBlock; }, frame.data());
            }
            return frames;
        }
    }
    ADD_FAILURE() << name << " is no contestant";
    return {};
}

TEST(FloorTest, HandWrittenSimdGivesTheSameFrames) {
    for (const Correction correction : bench::kCorrections) {
        EXPECT_EQ(framesOf(bench::kOurs, correction), framesOf(bench::kSimd, correction))
            << bench::nameOf(correction);
    }
}

TEST(FloorTest, PlainFramesAreTheBareCopies) {
    EXPECT_EQ(framesOf(bench::kBareCopies, Correction::kPlain),
              framesOf(bench::kOurs, Correction::kPlain));
}

// An uncorrected frame would equal the samples that it takes.
TEST(FloorTest, CorrectedFramesAreCorrected) {
    for (const Correction correction : {Correction::kStretched, Correction::kSqueezed}) {
        const std::vector<int16_t> noise = harshNoise(kFrame + 1);
        const int32_t count = bench::takenBy(correction);
        Frame frame{};
        uafd::resample(noise.data(), count, uafd::resampleStep(count, kFrame), frame.data(),
                       kFrame);
        EXPECT_EQ(frame, framesOf(bench::kOurs, correction).front()) << bench::nameOf(correction);
    }
}

}  // namespace
