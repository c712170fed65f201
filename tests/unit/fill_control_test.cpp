// SPDX-License-Identifier: Apache-2.0
// The control loop around a buffer of which it is told in steps, as cards do.
#include "companion/bridge/fill_control.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace uafd {
namespace {

constexpr double kRate = 48000;
constexpr double kBlockS = 0.005;

// A buffer into which frames come faster than they go, by `ppm`.
class Buffer {
  public:
    explicit Buffer(double ppm, double stepFrames = 1) : ppm(ppm), stepFrames(stepFrames) {}

    void run(double seconds) {
        for (double end = time + seconds; time < end; time += kBlockS) {
            excess += kRate * kBlockS * (ppm / 1e6 - control.correction());
            // The position is told in steps of the card's clock, which runs on its own.
            const double told = std::floor((excess + time * kRate) / stepFrames) * stepFrames -
                                time * kRate + stepFrames / 2;
            control.update(told, kBlockS);
            largest = std::max(largest, std::abs(excess));
            corrections.push_back(control.correction() * 1e6);
        }
    }
    // The largest change of the correction within a second, in ppm, from `from` seconds on.
    double largestChange(double from) const {
        const auto second = static_cast<size_t>(1 / kBlockS);
        double change = 0;
        for (auto i = static_cast<size_t>(from / kBlockS); i + second < corrections.size(); ++i) {
            const auto [low, high] =
                std::minmax_element(corrections.begin() + static_cast<std::ptrdiff_t>(i),
                                    corrections.begin() + static_cast<std::ptrdiff_t>(i + second));
            change = std::max(change, *high - *low);
        }
        return change;
    }

    FillControl control{kRate};
    double ppm;
    double excess = 0;
    double largest = 0;
    std::vector<double> corrections;

  private:
    const double stepFrames;
    double time = 0;
};

TEST(FillControl, FindsTheClocksDifference) {
    for (const double ppm : {-1000.0, -200.0, 0.0, 50.0, 1000.0}) {
        Buffer buffer(ppm);
        buffer.run(10);
        EXPECT_NEAR(buffer.control.correction() * 1e6, ppm, 30) << ppm;
        buffer.run(110);
        EXPECT_NEAR(buffer.control.correction() * 1e6, ppm, 1) << ppm;
        EXPECT_NEAR(buffer.excess, 0, 1) << ppm;
        EXPECT_LT(buffer.largest, 0.002 * kRate) << ppm << ": the fill has moved by more than 2 ms";
    }
}

// 4 ms are the steps of a timer in the kernel, and more than a card's.
TEST(FillControl, ChangesThePitchTooLittleToBeHeardWhenToldInSteps) {
    Buffer buffer(200, 0.004 * kRate);
    buffer.run(180);
    EXPECT_LT(buffer.largestChange(0), 1000);
    EXPECT_LT(buffer.largestChange(60), 60);
    EXPECT_NEAR(buffer.control.correction() * 1e6, 200, 60);
    EXPECT_LT(std::abs(buffer.excess), 0.003 * kRate);
    printf("largest change in a second: %.0f ppm at first, %.0f ppm later\n",
           buffer.largestChange(0), buffer.largestChange(60));
}

TEST(FillControl, FollowsAClockThatChanges) {
    Buffer buffer(200);
    buffer.run(120);
    buffer.ppm = -200;
    buffer.largest = 0;
    buffer.run(120);
    EXPECT_NEAR(buffer.control.correction() * 1e6, -200, 1);
    EXPECT_LT(buffer.largest, 0.004 * kRate);
}

TEST(FillControl, KeepsItsCorrectionWithinALimit) {
    FillControl control(kRate);
    for (int i = 0; i < 1000; ++i) {
        EXPECT_LE(control.update(1e6, kBlockS), FillControl::kMost);
    }
    EXPECT_EQ(control.correction(), FillControl::kMost);
    for (int i = 0; i < 10000; ++i) {
        control.update(-1e6, kBlockS);
    }
    EXPECT_EQ(control.correction(), -FillControl::kMost);
}

TEST(FillControl, KeepsWhatItFoundWhenTheBufferIsFilledAgain) {
    Buffer buffer(300);
    buffer.run(60);
    buffer.control.update(5000, kBlockS);
    buffer.control.restart();
    EXPECT_NEAR(buffer.control.correction() * 1e6, 300, 10);
}

}  // namespace
}  // namespace uafd
