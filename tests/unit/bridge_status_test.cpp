// SPDX-License-Identifier: Apache-2.0
#include <string>

#include <gtest/gtest.h>

#include "companion/bridge/status.h"

namespace uafd {
namespace {

SideStatus side(const char* shortName, const char* name) {
    return {shortName, name, "hw:0", true, 0.25F, {true, 20.04, -199.96, {3, 480}}};
}

TEST(BridgeStatus, FitsOnALine) {
    const SideStatus speaker = side("spk", "speaker");
    SideStatus microphone = side("mic", "microphone");
    EXPECT_EQ(lineOf(speaker, microphone),
              "spk  -12 dB  20 ms  -200 ppm, 3 xruns | mic  -12 dB  20 ms  -200 ppm, 3 xruns");
    microphone.facts.isRunning = false;
    EXPECT_EQ(lineOf(speaker, microphone),
              "spk  -12 dB  20 ms  -200 ppm, 3 xruns | mic off, 3 xruns");
    microphone.hasCard = false;
    EXPECT_EQ(lineOf(speaker, microphone),
              "spk  -12 dB  20 ms  -200 ppm, 3 xruns | mic has no card");
    microphone.device.clear();
    EXPECT_EQ(lineOf(speaker, microphone), "spk  -12 dB  20 ms  -200 ppm, 3 xruns | mic not used");
    microphone = side("mic", "microphone");
    microphone.peak = 0;
    EXPECT_LE(lineOf(microphone, microphone).size(), 80U);
}

TEST(BridgeStatus, IsAnObjectOfJson) {
    SideStatus speaker = side("spk", "speaker");
    speaker.device = "plug:\"a\\b\"";
    SideStatus microphone = side("mic", "microphone");
    microphone.device.clear();
    EXPECT_EQ(jsonOf(1.54, true, speaker, microphone),
              "{\"seconds\":1.5,\"daemon\":true,\"speaker\":{\"device\":\"plug:\\\"a\\\\b\\\"\","
              "\"card\":true,\"running\":true,\"peak_db\":-12.0,\"latency_ms\":20.0,"
              "\"ppm\":-200.0,\"xruns\":3,\"lost_frames\":480},\"microphone\":null}");
}

}  // namespace
}  // namespace uafd
