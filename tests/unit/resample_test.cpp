// SPDX-License-Identifier: Apache-2.0
// Stretching and squeezing: the steps, and every output sample of every frame size, compared with
// the interpolation formula in its plainest form.
#include "buffer/resample.h"

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/guarded.h"

namespace uafd {
namespace {

using Samples = std::vector<int16_t>;

constexpr int32_t kFrameSizeMax = 960;
constexpr int16_t kLowest = std::numeric_limits<int16_t>::min();
constexpr int16_t kHighest = std::numeric_limits<int16_t>::max();

struct Pattern {
    std::string name;
    Samples samples;  // enough for the largest squeezed frame
};

Samples generated(int16_t (*at)(int32_t)) {
    Samples samples;
    for (int32_t i = 0; i <= kFrameSizeMax; i++) {
        samples.push_back(at(i));
    }
    return samples;
}

std::vector<Pattern> patterns() {
    static std::mt19937 random(20240229);
    return {
        {"extremes, low first",
         generated([](int32_t i) { return i % 2 == 0 ? kLowest : kHighest; })},
        {"extremes, high first",
         generated([](int32_t i) { return i % 2 == 0 ? kHighest : kLowest; })},
        {"all lowest", generated([](int32_t) { return kLowest; })},
        {"small steps", generated([](int32_t i) { return int16_t(i % 3 - 1); })},
        {"ramp", generated([](int32_t i) { return int16_t(i * 68 - 32000); })},
        {"random", generated([](int32_t) { return int16_t(random()); })},
        {"random extremes", generated([](int32_t) { return random() % 2 ? kLowest : kHighest; })},
    };
}

// The formula in 64 bits, with a division that rounds toward minus infinity.
Samples plainly(const Samples& in, int64_t step, int32_t frameSize) {
    Samples out(static_cast<size_t>(frameSize));
    out.front() = in.front();
    out.back() = in.back();
    for (int64_t i = 1; i < frameSize - 1; i++) {
        const auto k = static_cast<size_t>(i * step / 65536);
        const int64_t f = i * step % 65536;
        const int64_t a = in.at(k);
        const int64_t b = in.at(k + 1);
        const auto rise = std::floor(static_cast<double>((b - a) * f + 32768) / 65536);
        out.at(static_cast<size_t>(i)) = static_cast<int16_t>(a + static_cast<int64_t>(rise));
    }
    return out;
}

// Memory of exactly the input's size, so that the address sanitizer reports a read beyond it.
Samples resampled(const Samples& in, int32_t frameSize) {
    const auto count = static_cast<int32_t>(in.size());
    Guarded<int16_t> out(static_cast<size_t>(frameSize), 0x1234);
    resample(in.data(), count, resampleStep(count, frameSize), out.data(), frameSize);
    EXPECT_TRUE(out.intact());
    return out.toVector();
}

Samples firstOf(const Pattern& pattern, int32_t count) {
    return {pattern.samples.begin(), pattern.samples.begin() + count};
}

TEST(ResampleStepTest, StepsOfTheFrameSizesInUse) {
    struct Row {
        int32_t frameSize;
        uint32_t nominal, compress, stretch;
    };
    constexpr Row rows[] = {
        {480, 65536, 65673, 65399}, {240, 65536, 65810, 65262}, {960, 65536, 65604, 65468},
        {1, 0, 4294967295, 0},      {2, 65536, 131072, 0},      {3, 65536, 98304, 32768},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.frameSize);
        EXPECT_EQ(row.nominal, resampleStep(row.frameSize, row.frameSize));
        EXPECT_EQ(row.compress, resampleStep(row.frameSize + 1, row.frameSize));
        EXPECT_EQ(row.stretch, resampleStep(row.frameSize - 1, row.frameSize));
    }
}

// In double precision these four would be lower by one.
TEST(ResampleStepTest, RatioIsDividedInSinglePrecision) {
    EXPECT_EQ(65409u, resampleStep(514, 515));
    EXPECT_EQ(65659u, resampleStep(537, 536));
    EXPECT_EQ(65624u, resampleStep(751, 750));
    EXPECT_EQ(65606u, resampleStep(945, 944));
}

// The step closest to the exact ratio, except for those four, which are off by one.
TEST(ResampleStepTest, StepOfEverySizeIsTheRoundedRatio) {
    std::vector<int32_t> offByOne;
    for (int32_t frameSize = 2; frameSize <= kFrameSizeMax; frameSize++) {
        for (const int32_t count : {frameSize - 1, frameSize, frameSize + 1}) {
            const int64_t intervals = frameSize - 1;
            const int64_t exact = (int64_t{count - 1} * 65536 * 2 + intervals) / (2 * intervals);
            const int64_t step = resampleStep(count, frameSize);
            if (step != exact) {
                EXPECT_EQ(exact + 1, step);
                offByOne.push_back(frameSize);
            }
        }
    }
    EXPECT_EQ((std::vector<int32_t>{515, 536, 750, 944}), offByOne);
}

TEST(ResampleTest, EveryFrameSizeEqualsTheFormula) {
    for (const Pattern& pattern : patterns()) {
        for (int32_t frameSize = 1; frameSize <= kFrameSizeMax; frameSize++) {
            for (const int32_t count : {frameSize - 1, frameSize + 1}) {
                if (count > 0) {
                    const Samples in = firstOf(pattern, count);
                    ASSERT_EQ(plainly(in, resampleStep(count, frameSize), frameSize),
                              resampled(in, frameSize))
                        << pattern.name << ", " << count << " to " << frameSize;
                }
            }
        }
    }
}

// The system's frame: per sample the index grows by one and the fraction by 274.
TEST(ResampleTest, FrameOf240StepsThroughTheInputContiguously) {
    const Samples in = patterns().back().samples;
    const Samples squeezed = resampled({in.begin(), in.begin() + 241}, 240);
    const Samples stretched = resampled({in.begin(), in.begin() + 239}, 240);
    for (size_t i = 1; i <= 238; i++) {
        const auto between = [&in](size_t k, size_t f) {
            const int64_t sum = int64_t{in[k + 1] - in[k]} * static_cast<int64_t>(f) + 32768;
            return static_cast<int16_t>(in[k] + (sum >> 16));
        };
        ASSERT_EQ(between(i, 274 * i), squeezed[i]) << i;
        ASSERT_EQ(between(i - 1, 65536 - 274 * i), stretched[i]) << i;
    }
}

TEST(ResampleTest, EndsAreTheInputsEnds) {
    EXPECT_EQ((Samples{7, 20, 30}), resampled({7, 14, 25, 30}, 3));
    EXPECT_EQ((Samples{7, 19, 30}), resampled({7, 30}, 3));
}

TEST(ResampleTest, FramesOfTwoAndOneHaveNoInterior) {
    EXPECT_EQ((Samples{1, 3}), resampled({1, 2, 3}, 2));
    EXPECT_EQ((Samples{1, 1}), resampled({1}, 2));
    EXPECT_EQ((Samples{2}), resampled({1, 2}, 1));
}

TEST(ResampleTest, HalvesAreRoundedUp) {
    EXPECT_EQ((Samples{0, 1, 1}), resampled({0, 1}, 3));
    EXPECT_EQ((Samples{0, 0, -1}), resampled({0, -1}, 3));
    EXPECT_EQ((Samples{kLowest, 0, kHighest}), resampled({kLowest, kHighest}, 3));
    EXPECT_EQ((Samples{kHighest, 0, kLowest}), resampled({kHighest, kLowest}, 3));
}

}  // namespace
}  // namespace uafd
