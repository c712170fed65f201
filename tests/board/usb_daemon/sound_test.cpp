// SPDX-License-Identifier: Apache-2.0
// The daemon over the wire: speaker and microphone bit for bit, at both speeds and at every
// difference of the clocks, by the gadget's feedback.
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "tests/board/usb_daemon/wire_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr Ns kTime = 500 * kMs;

constexpr int64_t kPacketBytes = 96;  // 48 frames

class Sound : public WireCase, public testing::WithParamInterface<std::tuple<bool, int>> {
  protected:
    Sound() : WireCase(true) {}

    // Before the first stream of the speaker.
    void forgetPackets() { before = wire.counters(); }
    // The feedback asks for 48 frames in each packet, in 3 bytes at full speed and in 4 at high
    // speed, each 32 frames or microframes; and the host obeys.
    void expectFeedback(bool fullSpeed) {
        const int64_t packets = moved("ep1out.packets");
        const int64_t answers = moved("ep3in.packets");
        EXPECT_EQ(moved("ep1out.bytes"), packets * kPacketBytes);
        EXPECT_EQ(moved("ep3in.bytes"), answers * (fullSpeed ? 3 : 4));
        EXPECT_NEAR(static_cast<double>(packets) / static_cast<double>(answers), fullSpeed ? 32 : 4,
                    fullSpeed ? 2 : 0.1);
    }

  private:
    int64_t moved(const std::string& counter) {
        return wire.counterOrZero(counter) - before[counter];
    }

    std::map<std::string, int64_t> before;
};

TEST_P(Sound, IsExactBothWays) {
    const auto [fullSpeed, ppm] = GetParam();
    host.unplug();
    wire.setFullSpeed(fullSpeed);
    host.setPpb(ppm * 1000);
    host.plug();
    ASSERT_EQ(wire.counter("high_speed"), fullSpeed ? 0 : 1);
    forgetPackets();
    expectSound(kTime);
    expectFeedback(fullSpeed);
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
