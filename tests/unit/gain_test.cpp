// SPDX-License-Identifier: Apache-2.0
#include "companion/bridge/gain.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace uafd {
namespace {

std::vector<float> through(Gain* gain, size_t frames = 1000) {
    std::vector<float> samples(frames, 1.0F);
    gain->apply(samples.data(), frames);
    return samples;
}

double largestStep(const std::vector<float>& samples) {
    double largest = 0;
    for (size_t i = 1; i < samples.size(); ++i) {
        largest = std::max<double>(largest, std::abs(samples[i] - samples[i - 1]));
    }
    return largest;
}

TEST(Gain, IsTheVolumeInDecibels) {
    EXPECT_FLOAT_EQ(factorOf(0), 1);
    EXPECT_NEAR(factorOf(-20 * 256), 0.1, 1e-6);
    EXPECT_NEAR(factorOf(-1541), 0.5, 1e-3);
    EXPECT_EQ(factorOf(-32768), 0) << "the USB classes' word for silence";
    EXPECT_EQ(factorOf(256), 1) << "louder than the sound itself";
}

TEST(Gain, BeginsInSilenceAndArrivesWithinTheRamp) {
    Gain gain;
    const std::vector<float> samples = through(&gain);
    EXPECT_LT(samples[0], 0.01);
    EXPECT_LT(samples[Gain::kRampFrames / 2], 0.6);
    EXPECT_EQ(samples[Gain::kRampFrames], 1);
    EXPECT_EQ(samples.back(), 1);
    gain.fadeIn();
    EXPECT_LT(through(&gain)[0], 0.01);
}

TEST(Gain, ChangesVolumeAndMuteWithoutAStep) {
    Gain gain;
    through(&gain);
    gain.setVolume(-20 * 256);
    std::vector<float> samples = through(&gain);
    EXPECT_LE(largestStep(samples), 1.01 / Gain::kRampFrames);
    EXPECT_NEAR(samples.back(), 0.1, 1e-6);
    gain.setMute(true);
    samples = through(&gain);
    EXPECT_LE(largestStep(samples), 1.01 / Gain::kRampFrames);
    EXPECT_EQ(samples.back(), 0);
    gain.setMute(false);
    EXPECT_NEAR(through(&gain).back(), 0.1, 1e-6) << "the volume stays while muted";
}

}  // namespace
}  // namespace uafd
