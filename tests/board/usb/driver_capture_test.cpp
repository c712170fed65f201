// SPDX-License-Identifier: Apache-2.0
// The gadget driver: all that passes while Linux enumerates it, and a piece of each stream, as it
// is kept in captures/. What there is now comes to the test's results, for a change that is wanted.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "board/kit/sound.h"
#include "board/kit/usb/usb_monitor.h"
#include "tests/board/usb/usb_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr uint8_t kSpeakerOut = 0x01;
constexpr uint8_t kMicIn = 0x82;
constexpr uint8_t kFeedbackIn = 0x83;
constexpr size_t kPackets = 20;

const std::map<std::string, std::string> kCaptures = {
#include "captures.inc"
};

std::string format(const char* text, unsigned value) {
    char line[40];
    snprintf(line, sizeof line, text, value);
    return line;
}

// 32 to a line.
std::string hex(const std::string& bytes) {
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        text += i % 32 == 0 ? (i == 0 ? "   " : "\n   ") : "";
        text += format(" %02x", static_cast<uint8_t>(bytes[i]));
    }
    return text + (bytes.empty() ? "" : "\n");
}

std::string result(int status, const std::string& data) {
    const std::string error = status == 0 ? "" : " error " + std::to_string(-status);
    return ":" + error + " " + std::to_string(data.size()) + " bytes\n" + hex(data);
}

// As USB 2.0 and the audio class call the request. The two use the same numbers for different ones.
const char* nameOf(uint8_t type, uint8_t request) {
    const bool isClass = (type & 0x60) == 0x20;
    constexpr struct {
        bool isClass;
        uint8_t request;
        const char* name;
    } kNames[] = {{false, 0x05, "SET_ADDRESS"},
                  {false, 0x06, "GET_DESCRIPTOR"},
                  {false, 0x09, "SET_CONFIGURATION"},
                  {false, 0x0b, "SET_INTERFACE"},
                  {true, 0x01, "SET_CUR"},
                  {true, 0x04, "SET_RES"},
                  {true, 0x81, "GET_CUR"},
                  {true, 0x82, "GET_MIN"},
                  {true, 0x83, "GET_MAX"},
                  {true, 0x84, "GET_RES"}};
    for (const auto& row : kNames) {
        if (row.isClass == isClass && row.request == request) {
            return row.name;
        }
    }
    return "unknown";
}

// An address is the host's choice.
std::string textOf(const UsbTransfer& transfer) {
    const auto& setup = transfer.setup;
    const auto word = [&](size_t at) {
        return static_cast<unsigned>(setup[at]) | static_cast<unsigned>(setup[at + 1]) << 8;
    };
    const std::string name = nameOf(setup[0], setup[1]);
    return format("control %02x", setup[0]) + format(" %02x ", setup[1]) + name +
           (name == "SET_ADDRESS" ? " value ----" : format(" value %04x", word(2))) +
           format(" index %04x", word(4)) + format(" length %u", word(6)) +
           result(transfer.status, transfer.packets[0].data);
}

// The first packets of an endpoint that hold other bytes than 0.
std::string firstPackets(const std::vector<UsbTransfer>& transfers, uint8_t endpoint,
                         size_t count) {
    std::string text;
    size_t found = 0;
    for (const UsbTransfer& transfer : transfers) {
        for (const UsbPacket& packet : transfer.packets) {
            const bool isSilent =
                std::all_of(packet.data.begin(), packet.data.end(), [](char c) { return c == 0; });
            if (transfer.endpoint != endpoint || found == count || (found == 0 && isSilent)) {
                continue;
            }
            ++found;
            text += format("endpoint %02x", endpoint) + result(packet.status, packet.data);
        }
    }
    return text;
}

// A capture without the comments that it begins with.
std::string kept(const std::string& capture) {
    size_t at = 0;
    while (capture[at] == '#') {
        at = capture.find('\n', at) + 1;
    }
    return capture.substr(at);
}

class Capture : public DriverCase {
  protected:
    static void expectSame(const std::string& name, const std::string& now) {
        put("/out/" + name + ".txt", now);
        EXPECT_EQ(now, kept(kCaptures.at(name)))
            << "what there is now is in the results: " << name << ".txt";
    }
    // Both streams for a while; what passes between.
    std::vector<UsbTransfer> captureStreams() {
        PcmRecorder app(kDriverPcm);
        PcmPlayer appMic(kDriverPcm, ramp);
        monitor.take();
        PcmRecorder hostMic(kHostPcm);
        PcmPlayer hostSpeaker(kHostPcm, ramp);
        sleepFor(100 * kMs);
        return monitor.take();
    }

    UsbMonitor monitor;
};

TEST_F(Capture, OfAnEnumeration) {
    enumerate();
    sleepFor(20 * kMs);
    std::string text;
    for (const UsbTransfer& transfer : monitor.take()) {
        text += transfer.isControl ? textOf(transfer) : "";
    }
    expectSame("enumeration", text);
}

TEST_F(Capture, OfTheStreams) {
    enumerate();
    const std::vector<UsbTransfer> transfers = captureStreams();
    expectSame("speaker", firstPackets(transfers, kSpeakerOut, kPackets) +
                              firstPackets(transfers, kFeedbackIn, 2));
    expectSame("microphone", firstPackets(transfers, kMicIn, kPackets));
}

}  // namespace
}  // namespace uafd
