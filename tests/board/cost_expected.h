// SPDX-License-Identifier: Apache-2.0
// What the daemon may cost, checked by tests/board/cost_test.cpp. When a change makes it cheaper
// or, for a good reason, more expensive, the test prints the new figures: put them here in the same
// commit.
#pragma once

#include <cstdint>

namespace uafd {

struct ExpectedCost {
    const char* what;
    int64_t instructions;  // per second
};

constexpr ExpectedCost kSpeakerCost{"speaker", 3739000};
constexpr ExpectedCost kMicrophoneCost{"microphone", 3852000};
constexpr ExpectedCost kBothCost{"both", 7506000};
constexpr ExpectedCost kIdleCost{"idle", 66900};

// The environment of the measurement. In any other the figures hold only approximately.
constexpr char kCostMeasuredWith[] = "Linux 6.1.0-56-arm64, glibc 2.36, GCC 12.2.0";

}  // namespace uafd
