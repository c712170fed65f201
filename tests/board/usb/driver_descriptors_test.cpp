// SPDX-License-Identifier: Apache-2.0
// The gadget driver: what it tells the host of itself, byte by byte, as "USB Device Class
// Definition for Audio Devices" 1.0 has it.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/board/usb/usb_case.h"

namespace uafd {
namespace {

using namespace board;

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kStatusIn = 0x81;
constexpr uint8_t kSpeakerOut = 0x01;
constexpr uint8_t kMicIn = 0x82;
constexpr uint8_t kFeedbackIn = 0x83;
// Strings: manufacturer, product and serial number come first.
constexpr uint8_t kFunctionName = 4;
constexpr uint8_t kSpeakerName = 5;
constexpr uint8_t kMicName = 6;

enum Descriptor : uint8_t { kOfConfiguration = 2, kOfString = 3, kOfOtherSpeed = 7 };

// A descriptor a line.
std::string text(const Bytes& bytes) {
    std::string lines;
    size_t end = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == end) {
            end += std::max<size_t>(bytes[i], 1);
            lines += "\n";
        }
        constexpr char kDigits[] = "0123456789abcdef";
        lines += {' ', kDigits[bytes[i] >> 4], kDigits[bytes[i] & 0xf]};
    }
    return lines;
}

// Of the configuration, without its own nine bytes.
std::string functionOf(Descriptor type) {
    std::string data(512, '\0');
    const int got = UsbDevice().control(0x80, 6, static_cast<uint16_t>(type << 8), 0, &data);
    return text(got < 9 ? Bytes() : Bytes(data.begin() + 9, data.begin() + got));
}

std::string stringOf(uint8_t index) {
    std::string data(255, '\0');
    const int got =
        UsbDevice().control(0x80, 6, static_cast<uint16_t>(kOfString << 8 | index), 0x0409, &data);
    std::string text;
    for (int i = 2; i < got; i += 2) {
        text += data[static_cast<size_t>(i)];
    }
    return text;
}

// clang-format off
const Bytes kControlInterface = {
    // Interface 0, AudioControl: one endpoint.
    9, 0x04, 0, 0, 1, 0x01, 0x01, 0, kFunctionName,
    // Header: 1.00, 74 bytes with what follows, two streaming interfaces: 1 and 2.
    10, 0x24, 0x01, 0x00, 0x01, 74, 0, 2, 1, 2,
    // Input terminal 1: USB streaming, one channel.
    12, 0x24, 0x02, 1, 0x01, 0x01, 0, 1, 0, 0, 0, 0,
    // Feature unit 2 on 1: two bytes a control; mute and volume on the master channel, none on the first.
    11, 0x24, 0x06, 2, 1, 2, 0x03, 0, 0, 0, 0,
    // Output terminal 3 on 2: loudspeaker.
    9, 0x24, 0x03, 3, 0x01, 0x03, 0, 2, kSpeakerName,
    // Input terminal 4: microphone, one channel.
    12, 0x24, 0x02, 4, 0x01, 0x02, 0, 1, 0, 0, 0, kMicName,
    // Feature unit 5 on 4.
    11, 0x24, 0x06, 5, 4, 2, 0x03, 0, 0, 0, 0,
    // Output terminal 6 on 5: USB streaming.
    9, 0x24, 0x03, 6, 0x01, 0x01, 0, 5, 0,
};
// Format type I: one channel, two bytes, 16 bits, one frequency: 48000.
const Bytes kFormat = {11, 0x24, 0x02, 0x01, 1, 2, 16, 1, 0x80, 0xbb, 0x00};
// The class's part of a data endpoint: no controls.
const Bytes kDataEndpoint = {7, 0x25, 0x01, 0, 0, 0, 0};

Bytes statusEndpoint(bool highSpeed) {
    return {9, 0x05, kStatusIn, 0x03, 2, 0, static_cast<uint8_t>(highSpeed ? 4 : 1), 0, 0};
}

// Asynchronous with feedback, or adaptive without.
Bytes speaker(bool highSpeed, bool adaptive) {
    const uint8_t interval = highSpeed ? 4 : 1;
    Bytes bytes = {
        // Interface 1, AudioStreaming: nothing, or one or two endpoints.
        9, 0x04, 1, 0, 0, 0x01, 0x02, 0, kSpeakerName,
        9, 0x04, 1, 1, static_cast<uint8_t>(adaptive ? 1 : 2), 0x01, 0x02, 0, kSpeakerName,
        // On terminal 1, a frame of delay, PCM.
        7, 0x24, 0x01, 1, 1, 0x01, 0x00,
    };
    bytes.insert(bytes.end(), kFormat.begin(), kFormat.end());
    // 49 frames at most.
    const Bytes data = {9, 0x05, kSpeakerOut, static_cast<uint8_t>(adaptive ? 0x09 : 0x05), 98, 0, interval, 0,
                        static_cast<uint8_t>(adaptive ? 0 : kFeedbackIn)};
    bytes.insert(bytes.end(), data.begin(), data.end());
    bytes.insert(bytes.end(), kDataEndpoint.begin(), kDataEndpoint.end());
    if (!adaptive) {
        // Each 2^5 ms.
        const Bytes feedback = {9, 0x05, kFeedbackIn, 0x01, static_cast<uint8_t>(highSpeed ? 4 : 3), 0,
                                interval, 5, 0};
        bytes.insert(bytes.end(), feedback.begin(), feedback.end());
    }
    return bytes;
}

Bytes mic(bool highSpeed) {
    Bytes bytes = {
        // Interface 2, AudioStreaming.
        9, 0x04, 2, 0, 0, 0x01, 0x02, 0, kMicName,
        9, 0x04, 2, 1, 1, 0x01, 0x02, 0, kMicName,
        // On terminal 6.
        7, 0x24, 0x01, 6, 1, 0x01, 0x00,
    };
    bytes.insert(bytes.end(), kFormat.begin(), kFormat.end());
    const Bytes data = {9, 0x05, kMicIn, 0x05, 98, 0, static_cast<uint8_t>(highSpeed ? 4 : 1), 0, 0};
    bytes.insert(bytes.end(), data.begin(), data.end());
    bytes.insert(bytes.end(), kDataEndpoint.begin(), kDataEndpoint.end());
    return bytes;
}
// clang-format on

Bytes function(bool highSpeed, bool adaptive = false) {
    Bytes all = kControlInterface;
    for (const Bytes& part :
         {statusEndpoint(highSpeed), speaker(highSpeed, adaptive), mic(highSpeed)}) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

class Descriptors : public DriverCase {};

TEST_F(Descriptors, AreTheClasssAtHighSpeed) {
    enumerate();
    EXPECT_EQ(UsbHost::attribute("speed"), "480");
    EXPECT_EQ(functionOf(kOfConfiguration), text(function(true)));
    EXPECT_EQ(functionOf(kOfOtherSpeed), text(function(false)));
}

TEST_F(Descriptors, AreTheClasssAtFullSpeed) {
    enumerate({}, true);
    EXPECT_EQ(UsbHost::attribute("speed"), "12");
    EXPECT_EQ(functionOf(kOfConfiguration), text(function(false)));
    EXPECT_EQ(functionOf(kOfOtherSpeed), text(function(true)));
}

TEST_F(Descriptors, LeaveOutTheFeedbackOfAnAdaptiveSpeaker) {
    enumerate({{"c_sync", "adaptive"}});
    EXPECT_EQ(functionOf(kOfConfiguration), text(function(true, true)));
    EXPECT_EQ(functionOf(kOfOtherSpeed), text(function(false, true)));
}

TEST_F(Descriptors, NameWhatTheAttributesName) {
    enumerate();
    EXPECT_EQ(stringOf(kFunctionName), "Audio");
    EXPECT_EQ(stringOf(kSpeakerName), "Speaker");
    EXPECT_EQ(stringOf(kMicName), "Microphone");
    gadget.reset();
    enumerate({{"function_name", "Panel"},
               {"c_ot_name", "Horn"},
               {"p_it_name", "Ear"},
               {"c_terminal_type", "0x0402"},
               {"p_terminal_type", "0x0405"}});
    EXPECT_EQ(stringOf(kFunctionName), "Panel");
    EXPECT_EQ(stringOf(kSpeakerName), "Horn");
    EXPECT_EQ(stringOf(kMicName), "Ear");
    Bytes expected = function(true);
    expected[9 + 10 + 12 + 11 + 4] = 0x02;
    expected[9 + 10 + 12 + 11 + 5] = 0x04;
    expected[9 + 10 + 12 + 11 + 9 + 4] = 0x05;
    expected[9 + 10 + 12 + 11 + 9 + 5] = 0x04;
    EXPECT_EQ(functionOf(kOfConfiguration), text(expected));
}

}  // namespace
}  // namespace uafd
