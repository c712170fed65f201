// SPDX-License-Identifier: Apache-2.0
// The USB wire: what the kernel's test driver for USB asks of a controller, and every fault at the
// very microframe that it was planned for, as host and gadget see it.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/clock.h"
#include "board/kit/sound.h"
#include "tests/board/usb/usb_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t kPacketFrames = 48;
constexpr int64_t kInterval = 8;  // microframes from an isochronous packet to the next

void run(const std::string& command) {
    ASSERT_EQ(system((command + " >/dev/null").c_str()), 0) << command;
}

// The kernel's gadget for tests, which is a source and a sink of zeros: ep1 bulk, ep2 isochronous.
class Transfers : public UsbCase {
  protected:
    static constexpr uint8_t kBulkOut = 0x01;
    static constexpr uint8_t kBulkIn = 0x81;
    static constexpr uint8_t kIsoOut = 0x02;
    static constexpr uint8_t kIsoIn = 0x82;
    static constexpr int kPackets = 64;

    // `answer` is how many bytes the gadget sends at a time, bulk.
    void start(bool fullSpeed = false, const std::string& pattern = "0",
               const std::string& answer = "4096") {
        wire.setFullSpeed(fullSpeed);
        gadget = std::make_unique<KernelGadget>(
            "SourceSink",
            std::map<std::string, std::string>{
                {"pattern", pattern}, {"isoc_maxpacket", "64"}, {"bulk_buflen", answer}});
        gadget->bind();
        ASSERT_TRUE(
            waitFor([] { return UsbHost::attribute("bConfigurationValue") == "1"; }, 2 * kSecond));
    }

    // Runs the kernel's test driver's own cases over the gadget.
    void runKernelTests(bool fullSpeed) {
        run("modprobe usbtest alt=1 pattern=1");
        start(fullSpeed, "1");
        ASSERT_TRUE(waitFor([] { return exists("/sys/bus/usb/drivers/usbtest/1-1:1.0"); }));
        UsbDevice device;
        const unsigned packet = fullSpeed ? 64 : 512;
        // Bulk; scatter lists; chapter 9; queued control; unlinking; halts; control writes;
        // isochronous; odd addresses; unlinking queues; toggles.
        for (const unsigned test : {1U,  2U,  3U,  4U,  5U,  6U,  7U,  8U,  9U,  10U, 11U, 12U, 13U,
                                    14U, 15U, 16U, 17U, 18U, 19U, 20U, 21U, 22U, 23U, 24U, 29U}) {
            EXPECT_GE(device.runTest(test, 2, 4 * packet, packet, 8), 0) << test;
        }
        run("rmmod usbtest");
    }

    // The statuses of the isochronous packets when `times` of them go wrong from the 20th on.
    std::vector<IsoPacket> isoWithFault(uint8_t endpoint, const char* fault, int times) {
        const std::string name = endpoint & 0x80 ? "ep2in" : "ep2out";
        UsbDevice device;
        device.claim(1);
        // The URB that tells when the next one starts.
        device.iso(endpoint, kPackets, 64);
        const int64_t at = wire.uframeIn(20);
        wire.fault(name, fault, times, at);
        const std::vector<IsoPacket> packets = device.iso(endpoint, kPackets, 64);
        std::vector<int64_t> expected;
        for (int i = 0; i < times; ++i) {
            expected.push_back(at + i * kInterval);
        }
        EXPECT_EQ(wire.uframesOf("fault " + name + " " + fault, at), expected);
        hitPacket = kPackets - 1 - (wire.counter(name + ".last") - at) / kInterval;
        return packets;
    }
    // Expects packets `hitPacket` to `hitPacket` + times - 1 to have this status, and the others to
    // be whole.
    void expectStatus(const std::vector<IsoPacket>& packets, int times, int status) const {
        for (int i = 0; i < kPackets; ++i) {
            const bool hit = i >= hitPacket && i < hitPacket + times;
            EXPECT_EQ(packets[static_cast<size_t>(i)].status, hit ? status : 0)
                << i << " " << hitPacket;
        }
    }

    int64_t hitPacket = 0;  // the packet that the fault hits first
};

TEST_F(Transfers, PassTheKernelsTestsAtHighSpeed) {
    runKernelTests(false);
}

TEST_F(Transfers, PassTheKernelsTestsAtFullSpeed) {
    runKernelTests(true);
}

// The kernel's tests ask for no more than the gadget has.
TEST_F(Transfers, EndWithAShortPacket) {
    start(false, "0", "1000");
    UsbDevice device;
    device.claim(1);
    std::string data(4096, '\0');
    EXPECT_EQ(device.bulk(kBulkIn, &data), 1000);
}

TEST_F(Transfers, LoseIsochronousInPackets) {
    start();
    expectStatus(isoWithFault(kIsoIn, "lost", 3), 3, -EPROTO);
}

TEST_F(Transfers, SpoilIsochronousInPackets) {
    start();
    const std::vector<IsoPacket> packets = isoWithFault(kIsoIn, "crc", 1);
    expectStatus(packets, 1, -EILSEQ);
    EXPECT_EQ(packets[static_cast<size_t>(hitPacket)].bytes, 0U);
}

TEST_F(Transfers, SendTooMuchInAnIsochronousInPacket) {
    start();
    const std::vector<IsoPacket> packets = isoWithFault(kIsoIn, "babble", 2);
    expectStatus(packets, 2, -EOVERFLOW);
}

TEST_F(Transfers, HideFaultsOfIsochronousOutPacketsFromTheHost) {
    start();
    expectStatus(isoWithFault(kIsoOut, "lost", 3), 3, 0);
}

TEST_F(Transfers, TryBulkPacketsThreeTimes) {
    start();
    UsbDevice device;
    device.claim(1);
    for (const uint8_t endpoint : {kBulkOut, kBulkIn}) {
        const std::string name = endpoint & 0x80 ? "ep1in" : "ep1out";
        for (const auto& [fault, error] : {std::pair{"lost", EPROTO}, {"crc", EILSEQ}}) {
            std::string data(1024, '\0');
            wire.fault(name, fault, 2);
            const int64_t since = wire.uframe();
            EXPECT_EQ(device.bulk(endpoint, &data), 1024) << name;
            // In microframes that follow each other.
            const std::vector<int64_t> tries = wire.uframesOf("fault " + name, since);
            ASSERT_EQ(tries.size(), 2U);
            EXPECT_EQ(tries[1] - tries[0], 1);
            wire.fault(name, fault, 3);
            EXPECT_EQ(device.bulk(endpoint, &data), -error) << name;
            EXPECT_EQ(device.bulk(endpoint, &data), 1024) << name;
        }
    }
    std::string data(1024, '\0');
    wire.fault("ep1in", "babble");
    EXPECT_EQ(device.bulk(kBulkIn, &data), -EOVERFLOW);
    EXPECT_EQ(device.bulk(kBulkIn, &data), 1024);
}

TEST_F(Transfers, TryControlTransfersThreeTimes) {
    start();
    UsbDevice device;
    const auto describe = [&device] {
        std::string descriptor(18, '\0');
        return device.control(0x80, 6, 0x0100, 0, &descriptor);
    };
    for (const auto& [fault, error] :
         {std::pair{"lost", EPROTO}, {"crc", EILSEQ}, {"babble", EOVERFLOW}}) {
        const bool tried = error != EOVERFLOW;
        wire.fault("ep0", fault, 2);
        EXPECT_EQ(describe(), tried ? 18 : -error) << fault;
        wire.fault("ep0", fault, tried ? 3 : 1);
        EXPECT_EQ(describe(), -error) << fault;
        EXPECT_EQ(describe(), 18) << fault;
    }
}

TEST_F(Transfers, EndWhenTheHostDoesNotPoll) {
    start();
    UsbDevice device;
    device.claim(1);
    std::string data(512, '\0');
    wire.poll("ep1in", false);
    EXPECT_EQ(device.bulk(kBulkIn, &data), -ETIMEDOUT);
    wire.poll("ep1in", true);
    EXPECT_EQ(device.bulk(kBulkIn, &data), 512);
}

struct SoundFault {
    const char* name;
    const char* fault;
    bool toHost;      // of the microphone
    int64_t missing;  // frames of sound that it costs
};

void PrintTo(const SoundFault& fault, std::ostream* out) {
    *out << fault.name;
}

class FaultySound : public UsbCase, public testing::WithParamInterface<SoundFault> {};

INSTANTIATE_TEST_SUITE_P(Usb, FaultySound,
                         testing::Values(SoundFault{"SpeakerLost", "lost", false, kPacketFrames},
                                         SoundFault{"SpeakerCrc", "crc", false, kPacketFrames},
                                         SoundFault{"SpeakerBabble", "babble", false, 0},
                                         // The gadget sends it with the next packet.
                                         SoundFault{"MicLost", "lost", true, 0},
                                         SoundFault{"MicCrc", "crc", true, kPacketFrames},
                                         SoundFault{"MicBabble", "babble", true, 0}),
                         [](const auto& info) { return info.param.name; });

TEST_P(FaultySound, MissesWhatItsPacketCarried) {
    const SoundFault& row = GetParam();
    enumerate();
    const std::string end = row.toHost ? mic : speaker;
    const int64_t packetsBefore = wire.counterOrZero(end + ".packets");
    PcmRecorder recorder(row.toHost ? kHostPcm : gadgetPcm);
    PcmPlayer player(row.toHost ? gadgetPcm : kHostPcm, noise);
    ASSERT_TRUE(waitFor([&] { return recorder.frames() > 4800; }));
    const int64_t first = wire.uframeIn(10);
    const int64_t second = first + 100 * kInterval;
    wire.fault(end, row.fault, 1, first);
    wire.fault(end, row.fault, 1, second);
    ASSERT_TRUE(waitFor([&] { return wire.uframe() > second + 200 * kInterval; }));
    const auto counters = wire.counters();
    recorder.stop();
    player.stop();
    EXPECT_THAT(wire.uframesOf("fault " + end + " " + row.fault, first),
                ElementsAre(first, second));
    const std::vector<Gap> gaps = findGaps(recorder.recording(), noise);
    if (row.missing == 0) {
        EXPECT_THAT(gaps, IsEmpty());
        return;
    }
    ASSERT_EQ(gaps.size(), 2U);
    EXPECT_EQ(gaps[0].missing, row.missing);
    EXPECT_EQ(gaps[1], (Gap{gaps[0].at + 99 * kPacketFrames, row.missing}));
    if (!row.toHost) {
        // The gadget's card moves with the packets, from the first on.
        const int64_t packets = counters.at(end + ".packets") - packetsBefore -
                                (counters.at(end + ".last") - first) / kInterval - 1;
        EXPECT_EQ(gaps[0].at, packets * kPacketFrames);
    }
}

// The gadget's own change of volume, of which a status interrupt tells the host.
TEST_F(UsbCase, TriesInterruptPacketsThreeTimes) {
    enumerate();
    int volume = 10;
    for (const int times : {1, 2, 3}) {
        const int64_t packets = wire.counterOrZero("ep1in.packets");
        const int64_t errors = wire.counterOrZero("ep1in.errors");
        const int64_t since = wire.uframe();
        wire.fault("ep1in", "lost", times);
        run("amixer -c UAC2Gadget cset name='PCM Playback Volume' " + std::to_string(++volume));
        ASSERT_TRUE(waitFor([&] { return wire.counterOrZero("ep1in.packets") > packets; }));
        const std::vector<int64_t> tries = wire.uframesOf("fault ep1in lost", since);
        ASSERT_EQ(tries.size(), static_cast<size_t>(times));
        for (int i = 1; i < times; ++i) {
            EXPECT_EQ(tries[static_cast<size_t>(i)] - tries[0], i * kInterval);
        }
        EXPECT_EQ(wire.counter("ep1in.last") - tries.back(), kInterval);
        EXPECT_EQ(wire.counter("ep1in.errors") - errors, times == 3 ? 1 : 0);
    }
}

TEST_F(UsbCase, RefusesWhatItDoesNotUnderstand) {
    std::istringstream refused(
        "|   |plugg|plug now|speed|speed super|ppb|ppb x|ppb 100000001|poll ep1in|"
        "poll ep1in 2|poll ep8in 1|poll ep0in 1|fault ep1in|fault ep1in dead|"
        "fault all lost|fault ep1in lost times=x|plug times=2|plug at=|plug at=-1|"
        "clear at=5|plug a b c d e f g|");
    for (std::string text; std::getline(refused, text, '|');) {
        const int error = wire.tryCommand(text);
        EXPECT_TRUE(error == EINVAL || error == E2BIG) << text << ": " << error;
    }
    EXPECT_EQ(wire.tryCommand(std::string(500, 'x')), E2BIG);
    EXPECT_EQ(wire.tryCommand("plug at=0"), ETIME);
    EXPECT_EQ(wire.tryCommand("plug at=" + std::to_string(wire.uframe())), ETIME);
    const std::string later = " at=" + std::to_string(wire.uframeIn(60000));
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(wire.tryCommand("plug" + later), 0);
    }
    EXPECT_EQ(wire.tryCommand("plug" + later), ENOSPC);
    EXPECT_EQ(wire.counter("planned"), 64);
    EXPECT_EQ(wire.tryCommand("clear\n"), 0);
    EXPECT_EQ(wire.counter("planned"), 0);
}

}  // namespace
}  // namespace uafd
