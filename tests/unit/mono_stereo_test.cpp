// SPDX-License-Identifier: Apache-2.0
// The conversions between one channel and two: whole blocks and incomplete ones, and no other
// samples change.
#include "buffer/mono_stereo.h"

#include <numeric>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace uafd {
namespace {

using ::testing::ElementsAre;
using Samples = std::vector<int16_t>;

TEST(MonoStereoTest, StereoRepeatsEachSample) {
    Samples samples{1, 2, 3, 4, 0, 0, 0, 0, 77};
    toStereo(samples.data(), 4);
    EXPECT_THAT(samples, ElementsAre(1, 1, 2, 2, 3, 3, 4, 4, 77));
}

TEST(MonoStereoTest, MonoIsTheLeftSamples) {
    Samples samples{1, 9, 2, 9, 3, 9};
    toMono(samples.data(), 3);
    EXPECT_THAT(samples, ElementsAre(1, 2, 3, 9, 3, 9));
}

TEST(MonoStereoTest, EveryLengthConvertsEachFrameAndNothingElse) {
    constexpr size_t longest = 100;
    for (size_t frames = 0; frames <= longest; ++frames) {
        SCOPED_TRACE(frames);
        Samples before(2 * longest + 1);
        std::iota(before.begin(), before.end(), int16_t{-90});
        Samples stereo = before;
        Samples mono = before;
        for (size_t i = 0; i < frames; ++i) {
            stereo[2 * i] = stereo[2 * i + 1] = before[i];
            mono[i] = before[2 * i];
        }
        Samples samples = before;
        toStereo(samples.data(), static_cast<int>(frames));
        EXPECT_EQ(samples, stereo);
        samples = before;
        toMono(samples.data(), static_cast<int>(frames));
        EXPECT_EQ(samples, mono);
    }
}

}  // namespace
}  // namespace uafd
