// SPDX-License-Identifier: Apache-2.0
// The daemon over the wire: speaker and microphone bit for bit, at both speeds and at every
// difference of the clocks.
#include <cstdlib>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "tests/board/usb_daemon/wire_case.h"

namespace uafd {
namespace {

using board::kMs;

constexpr board::Ns kTime = 500 * kMs;

class Sound : public WireCase, public testing::WithParamInterface<std::tuple<bool, int>> {
  protected:
    Sound() : WireCase(true) {}
};

TEST_P(Sound, IsExactBothWays) {
    const auto [fullSpeed, ppm] = GetParam();
    host.unplug();
    wire.setFullSpeed(fullSpeed);
    host.setPpb(ppm * 1000);
    host.plug();
    ASSERT_EQ(wire.counter("high_speed"), fullSpeed ? 0 : 1);
    expectSound(kTime);
}

INSTANTIATE_TEST_SUITE_P(UsbDaemon, Sound,
                         testing::Combine(testing::Bool(),
                                          testing::Values(0, 100, -100, 1000, -1000)),
                         [](const auto& info) {
                             const bool fullSpeed = std::get<0>(info.param);
                             const int ppm = std::get<1>(info.param);
                             return std::string(fullSpeed ? "FullSpeed" : "HighSpeed") +
                                    (ppm < 0 ? "Slower" : "Faster") + std::to_string(std::abs(ppm));
                         });

}  // namespace
}  // namespace uafd
