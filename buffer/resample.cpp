// SPDX-License-Identifier: Apache-2.0
#include "buffer/resample.h"

#include <algorithm>
#include <cmath>

namespace uafd {
namespace {

constexpr double kStepOne = 65536.0;       // 1.0 in 16.16 fixed point
constexpr double kStepMax = 4294967295.0;  // the largest step that 32 bits hold
constexpr int32_t kLanes = 8;              // samples in a vector register

// The point `fraction` / 65536 of the way from `a` to `b`, rounded to nearest:
// a + (((b - a) * fraction + 32768) >> 16). The two halves of the product are spelt out, each from
// a multiplication of its own, and the first sum is brought back to 16 bits, because compilers then
// stay with 16-bit lanes, eight to a vector register. Widened to 32 bits, a frame takes about as
// many instructions on AArch64 but twice the time and more on x86-64.
inline int16_t interpolate(int16_t a, int16_t b, uint16_t fraction) {
    const auto rise = static_cast<uint16_t>(b - a);  // 65536 too large on a fall
    const auto high = static_cast<uint16_t>((uint32_t{rise} * fraction) >> 16);
    const auto low = static_cast<uint16_t>(uint32_t{rise} * fraction);
    const uint16_t roundUp = low >= 0x8000 ? 1 : 0;
    const uint16_t excess = b < a ? fraction : uint16_t{0};
    const auto sum = static_cast<uint16_t>(a + high);
    return static_cast<int16_t>(static_cast<uint16_t>(sum + roundUp - excess));
}

// The `n` outputs from `first` on. Output i lies between inputs i and i + 1, at (i + 1) * step. No
// branch, no table; in whole vectors when `n` is a multiple of kLanes.
inline void resampleLanes(const int16_t* __restrict in, uint16_t increment, int16_t* __restrict out,
                          int32_t first, int32_t n) {
    auto fraction = static_cast<uint16_t>(static_cast<uint32_t>(first + 1) * increment);
    for (int32_t i = first; i < first + n; ++i) {
        out[i] = interpolate(in[i], in[i + 1], fraction);
        fraction = static_cast<uint16_t>(fraction + increment);
    }
}

// At least kLanes outputs. The last vector overlaps the one before, which is less work than
// computing the remaining samples one by one.
void resampleContiguous(const int16_t* in, uint32_t step, int16_t* out, int32_t n) {
    const auto increment = static_cast<uint16_t>(step);
    resampleLanes(in, increment, out, 0, n / kLanes * kLanes);
    resampleLanes(in, increment, out, n - kLanes, kLanes);
}

// Output i lies at any position (i + 1) * step.
void resampleAnywhere(const int16_t* in, uint32_t step, int16_t* out, int32_t n) {
    uint32_t position = step;
    for (int32_t i = 0; i < n; ++i) {
        const uint32_t k = position >> 16;
        out[i] = interpolate(in[k], in[k + 1], static_cast<uint16_t>(position));
        position += step;
    }
}

}  // namespace

// The division is in single precision, the rest in double: dividing in double would round the steps
// of 515, 536, 750 and 944 samples differently.
uint32_t resampleStep(int32_t count, int32_t frameSize) {
    const float ratio = static_cast<float>(count - 1) / static_cast<float>(frameSize - 1);
    if (std::isnan(ratio)) {
        return 0;
    }
    return static_cast<uint32_t>(std::clamp(ratio * kStepOne + 0.5, 0.0, kStepMax));
}

void resample(const int16_t* in, int32_t count, uint32_t step, int16_t* out, int32_t frameSize) {
    out[0] = in[0];
    out[frameSize - 1] = in[count - 1];
    const int32_t interior = frameSize - 2;  // frames of 2 and 1 have none
    // Squeezed, output i falls just behind input i; stretched, just before it. The distance only
    // grows with i, so when it stays below a sample at the last i, it does throughout.
    const int32_t first = count < frameSize ? 0 : 1;
    const uint32_t lastIndex = (static_cast<uint32_t>(interior) * step) >> 16;
    if (interior >= kLanes && lastIndex == static_cast<uint32_t>(interior - 1 + first)) {
        resampleContiguous(in + first, step, out + 1, interior);
    } else {
        resampleAnywhere(in, step, out + 1, interior);
    }
}

}  // namespace uafd
