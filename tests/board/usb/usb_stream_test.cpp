// SPDX-License-Identifier: Apache-2.0
// The USB wire: enumeration at both speeds, sound bit for bit under every offset of the host's
// clock, and a clock that is exact.
#include <cstdint>
#include <map>
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

using Counters = std::map<std::string, int64_t>;

constexpr int64_t kHeardFrames = 9600;   // of each direction, at least
constexpr Ns kLateNs = 60 * kMs / 1000;  // of a packet, on one processor

class Enumeration : public UsbCase {
  protected:
    // What the two ends see when the kernel's gadget is bound, which refuses `stalls` requests.
    void expectEnumeration(const SoundFunction& function, bool fullSpeed, int64_t stalls = 0) {
        const int64_t errors = wire.counterOrZero("ep0.errors");
        const Ns start = now();
        const int64_t since = wire.uframe();
        enumerate(function, fullSpeed);
        EXPECT_LT(now() - start, 600 * kMs);
        EXPECT_EQ(UsbHost::attribute("speed"), fullSpeed ? "12" : "480");
        EXPECT_EQ(wire.counter("high_speed"), fullSpeed ? 0 : 1);
        EXPECT_EQ(KernelGadget::state(), "configured");
        // A host resets a device, reads eight bytes, resets it again.
        EXPECT_EQ(wire.uframesOf("attach", since).size(), 1U);
        EXPECT_EQ(wire.uframesOf("reset", since).size(), 2U);
        EXPECT_EQ(wire.uframesOf(fullSpeed ? "enable full" : "enable high", since).size(), 2U);
        EXPECT_EQ(wire.uframesOf("control 00 09 value=0001 index=0000 length=0: 0", since).size(),
                  1U);
        EXPECT_EQ(wire.counterOrZero("ep0.errors") - errors, stalls);
        gadget.reset();
        EXPECT_TRUE(UsbHost::waitForCard(false));
        EXPECT_EQ(wire.uframesOf("detach", since).size(), 1U);
        EXPECT_EQ(wire.counter("attached"), 0);
    }
};

TEST_F(Enumeration, WorksAtHighSpeed) {
    expectEnumeration(kUac2, false);
}

TEST_F(Enumeration, WorksAtFullSpeed) {
    expectEnumeration(kUac2, true);
}

// It does not let the host set the resolution of its volumes, ten tries for each.
TEST_F(Enumeration, WorksWithTheOtherFunction) {
    expectEnumeration(kUac1, false, 20);
}

TEST_F(Enumeration, WaitsForTheCable) {
    wire.unplug();
    makeGadget();
    gadget->bind();
    EXPECT_FALSE(UsbHost::waitForCard(true, 500 * kMs));
    EXPECT_EQ(KernelGadget::state(), "not attached");
    plug();
}

class Stream : public UsbCase, public testing::WithParamInterface<bool> {
  protected:
    // Between two looks at the counters an endpoint had a packet each millisecond of the host, and
    // its newest packets were on time by the clock's formula.
    void expectPace(const Counters& first, const Counters& second, const std::string& end) {
        EXPECT_EQ(second.at(end + ".last") - first.at(end + ".last"),
                  kUframesPerMs * (second.at(end + ".packets") - first.at(end + ".packets")));
        for (const Counters& counters : {first, second}) {
            EXPECT_EQ(counters.at(end + ".last_ns"), wire.uframeTime(counters.at(end + ".last")));
        }
        for (const char* wrong : {".lost", ".errors", ".restarts", ".late"}) {
            EXPECT_EQ(second.at(end + wrong), first.at(end + wrong)) << wrong;
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Usb, Stream, testing::Bool(),
                         [](const auto& info) { return info.param ? "FullSpeed" : "HighSpeed"; });

TEST_P(Stream, IsExactAtEveryOffset) {
    enumerate(kUac2, GetParam());
    for (const int64_t ppb : {0, 100000, -100000, 1000000, -1000000}) {
        SCOPED_TRACE(ppb);
        wire.setPpb(ppb);
        SoundStreams streams(gadgetPcm);
        ASSERT_TRUE(streams.flow(kHeardFrames / 2));
        const Counters first = wire.counters();
        ASSERT_TRUE(streams.flow(3 * kHeardFrames / 2));
        const Counters second = wire.counters();
        expectPace(first, second, speaker);
        expectPace(first, second, mic);
        streams.stop();
        for (const PcmRecorder* recorder : {&streams.app, &streams.hostMic}) {
            const Samples recording = recorder->recording();
            EXPECT_GE(recording.size() - firstSound(recording), size_t{kHeardFrames});
            EXPECT_THAT(findGaps(recording, noise), testing::IsEmpty());
        }
    }
    EXPECT_LT(wire.counter("late_ns_max"), kLateNs);
}

class WireClock : public UsbCase {};

TEST_F(WireClock, FollowsItsFormulaAtEveryOffset) {
    for (const int64_t ppb :
         {0, 1, -1, 333, 20000, -100000, 1000000, -1000000, 99999999, -100000000}) {
        wire.setPpb(ppb);
        sleepFor(12 * kSecond);
        const auto counters = wire.counters();
        EXPECT_EQ(counters.at("uframe_ns"), wire.uframeTime(counters.at("uframe"))) << ppb;
        EXPECT_LE(counters.at("uframe_ns"), counters.at("now_ns")) << ppb;
        EXPECT_GT(wire.uframeTime(counters.at("uframe") + 1), counters.at("now_ns")) << ppb;
        // What has passed is 12 s and a little, by the host's clock.
        const int64_t passed = counters.at("uframe") - counters.at("ppb_uframe");
        EXPECT_NEAR(static_cast<double>(passed), 96000 * (1 + static_cast<double>(ppb) / 1e9), 8)
            << ppb;
    }
}

TEST_F(WireClock, ChangesInItsMicroframe) {
    wire.setPpb(1000000);
    const int64_t at = wire.uframeIn(100);
    const Ns exact = wire.uframeTime(at);
    wire.setPpb(-1000000, at);
    EXPECT_EQ(wire.counter("planned"), 1);
    ASSERT_TRUE(waitFor([&] { return wire.counter("ppb") == -1000000; }));
    EXPECT_EQ(wire.counter("ppb_uframe"), at);
    EXPECT_EQ(wire.counter("ppb_ns"), exact);
    EXPECT_GE(now(), exact);
    EXPECT_LT(now() - exact, 2 * kMs);
}

}  // namespace
}  // namespace uafd
