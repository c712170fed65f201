// SPDX-License-Identifier: Apache-2.0
// The USB wire: what becomes of streams when the cable is pulled, the bus reset or suspended, when
// the host stops polling or the gadget goes, each in its microframe; and that sound flows
// afterwards.
#include <cstdint>
#include <functional>
#include <optional>
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

constexpr int64_t kInterval = 8;         // microframes from an isochronous packet to the next
constexpr int64_t kSuspendUframes = 24;  // of an idle bus

class Link : public UsbCase {
  protected:
    // Both streams flow when it returns.
    void stream() {
        ASSERT_TRUE(UsbHost::waitForCard());
        streams.reset();
        streams.emplace(gadgetPcm);
        ASSERT_TRUE(streams->flow());
    }
    // Whatever happened, host and gadget can stream afresh, and every frame arrives.
    void expectSoundAfresh() {
        streams->stop();
        stream();
        EXPECT_TRUE(streams->flow());
        streams->stop();
        expectNoGaps();
    }
    void expectNoGaps() {
        EXPECT_THAT(findGaps(streams->app.recording(), noise), IsEmpty());
        EXPECT_THAT(findGaps(streams->hostMic.recording(), noise), IsEmpty());
    }
    bool waitForState(const std::string& state) {
        return waitFor([&] { return KernelGadget::state() == state; });
    }
    // Packets that failed, and packets that came after their microframe.
    int64_t wrongPackets() {
        return wire.counter(speaker + ".errors") + wire.counter(mic + ".errors") +
               wire.counter(speaker + ".late") + wire.counter(mic + ".late");
    }
    // The newest isochronous packet before `at` was in the slot before it.
    void expectPacketsUntil(int64_t at) {
        for (const std::string& end : {speaker, mic}) {
            const int64_t last = wire.counter(end + ".last");
            EXPECT_EQ(last, (at - 1) / kInterval * kInterval) << end;
        }
    }

    std::optional<SoundStreams> streams;
};

TEST_F(Link, BreaksWhenTheCableIsPulled) {
    enumerate();
    stream();
    const int64_t at = wire.uframeIn(20);
    wire.unplug(at);
    ASSERT_TRUE(UsbHost::waitForCard(false));
    EXPECT_THAT(wire.uframesOf("detach", at - 1), ElementsAre(at));
    // The gadget is told at once.
    for (const std::string& end : {speaker, mic}) {
        EXPECT_THAT(wire.uframesOf(end + " disable", at - 1), ElementsAre(at)) << end;
    }
    EXPECT_TRUE(waitForState("not attached"));
    EXPECT_TRUE(
        waitFor([&] { return streams->hostSpeaker.isOver() && streams->hostMic.isOver(); }));
    // The gadget's card stays, its streams stall.
    EXPECT_FALSE(streams->app.isOver());
    EXPECT_FALSE(streams->appMic.isOver());
    EXPECT_FALSE(UsbHost::hasDevice());
    wire.plug();
    expectSoundAfresh();
}

TEST_F(Link, IsMadeAfreshAfterADisturbance) {
    enumerate();
    stream();
    const int64_t at = wire.uframeIn(20);
    wire.reset(at);
    ASSERT_TRUE(
        waitFor([&] { return streams->hostSpeaker.isOver() && streams->hostMic.isOver(); }));
    ASSERT_TRUE(UsbHost::waitForCard());
    // The disturbance, and the two of an enumeration; the device was there all the time.
    const std::vector<int64_t> resets = wire.uframesOf("reset", at - 1);
    ASSERT_EQ(resets.size(), 3U);
    EXPECT_EQ(resets[0], at);
    EXPECT_THAT(wire.uframesOf("detach", at - 1), IsEmpty());
    expectSoundAfresh();
}

TEST_F(Link, IsMadeAfreshAfterAResetByTheHost) {
    enumerate();
    stream();
    const int64_t since = wire.uframe();
    EXPECT_EQ(UsbDevice().reset(), 0);
    ASSERT_TRUE(
        waitFor([&] { return streams->hostSpeaker.isOver() && streams->hostMic.isOver(); }));
    ASSERT_TRUE(UsbHost::waitForCard());
    EXPECT_THAT(wire.uframesOf("reset", since), testing::SizeIs(2));
    expectSoundAfresh();
}

TEST_F(Link, SleepsWithASilentHostAndGoesOnWithoutALoss) {
    enumerate();
    stream();
    const int64_t wrong = wrongPackets();
    const int64_t at = wire.uframeIn(20);
    const int64_t again = at + 100 * kUframesPerMs;
    wire.suspend(at);
    wire.resume(again);
    ASSERT_TRUE(waitForState("suspended"));
    expectPacketsUntil(at);
    ASSERT_TRUE(waitForState("configured"));
    EXPECT_THAT(wire.uframesOf("silent", at), ElementsAre(at));
    EXPECT_THAT(wire.uframesOf("suspend", at), ElementsAre(at + kSuspendUframes));
    EXPECT_THAT(wire.uframesOf("resume", at), ElementsAre(again));
    EXPECT_TRUE(streams->flow());
    streams->stop();
    expectNoGaps();
    EXPECT_EQ(wrongPackets(), wrong);
}

TEST_F(Link, DoesNotSleepInAShortSilence) {
    enumerate();
    stream();
    const int64_t at = wire.uframeIn(20);
    wire.suspend(at);
    wire.resume(at + kSuspendUframes);
    ASSERT_TRUE(waitFor([&] { return wire.uframe() > at + 2 * kSuspendUframes; }));
    EXPECT_THAT(wire.uframesOf("heard", at), ElementsAre(at + kSuspendUframes));
    EXPECT_THAT(wire.uframesOf("suspend", at), IsEmpty());
    EXPECT_TRUE(streams->flow());
    streams->stop();
    expectNoGaps();
}

TEST_F(Link, WaitsWhileTheHostDoesNotPollAnEndpoint) {
    enumerate();
    stream();
    const int64_t wrong = wrongPackets();
    const int64_t at = wire.uframeIn(20);
    const int64_t again = at + 200 * kUframesPerMs;
    wire.poll(speaker, false, at);
    wire.poll(speaker, true, again);
    ASSERT_TRUE(waitFor([&] { return wire.uframe() > again - 10 * kUframesPerMs; }));
    EXPECT_EQ(wire.counter(speaker + ".last"), at - kInterval);
    EXPECT_GE(wire.counter(mic + ".last"), again - 10 * kUframesPerMs);
    EXPECT_EQ(KernelGadget::state(), "configured");
    EXPECT_TRUE(streams->flow());
    streams->stop();
    expectNoGaps();
    EXPECT_EQ(wrongPackets(), wrong);
}

TEST_F(Link, GivesBackWhatTheHostDoesNotPoll) {
    enumerate();
    stream();
    wire.poll(speaker, false);
    wire.poll(mic, false);
    streams->stop();
    wire.poll("all", true);
    expectSoundAfresh();
}

TEST_F(Link, IsSuspendedByAHostThatDoesNotUseIt) {
    enumerate();
    const int64_t since = wire.uframe();
    UsbHost::allowSuspend(true);
    ASSERT_TRUE(waitForState("suspended"));
    EXPECT_THAT(wire.uframesOf("suspend", since), testing::SizeIs(1));
    // A program's stream wakes it.
    stream();
    EXPECT_EQ(KernelGadget::state(), "configured");
    EXPECT_THAT(wire.uframesOf("resume", since), testing::SizeIs(1));
    EXPECT_THAT(wire.uframesOf("reset", since), IsEmpty());
    streams->stop();
    expectNoGaps();
    ASSERT_TRUE(waitForState("suspended"));
    // So does its owner, and the cable goes from a suspended device.
    UsbHost::allowSuspend(false);
    ASSERT_TRUE(waitForState("configured"));
    UsbHost::allowSuspend(true);
    ASSERT_TRUE(waitForState("suspended"));
    pull();
    EXPECT_TRUE(waitForState("not attached"));
    wire.plug();
    expectSoundAfresh();
}

TEST_F(Link, GoesWithTheGadget) {
    enumerate();
    stream();
    gadget->unbind();
    ASSERT_TRUE(UsbHost::waitForCard(false));
    EXPECT_TRUE(waitFor([&] {
        return streams->app.isOver() && streams->appMic.isOver() && streams->hostMic.isOver();
    }));
    streams->stop();
    gadget->bind();
    expectSoundAfresh();
}

TEST_F(Link, GoesAndComesWithTheGadgetsConnection) {
    enumerate();
    for (int i = 0; i < 2; ++i) {
        stream();
        put(std::string("/sys/class/udc/") + kUdc + "/soft_connect", "disconnect");
        ASSERT_TRUE(UsbHost::waitForCard(false));
        EXPECT_TRUE(waitFor([&] { return streams->hostSpeaker.isOver(); }));
        streams->stop();
        put(std::string("/sys/class/udc/") + kUdc + "/soft_connect", "connect");
        ASSERT_TRUE(UsbHost::waitForCard());
    }
    expectSoundAfresh();
}

// From the first reset to the last control transfer: 400 ms, and a control transfer a microframe at
// the end.
TEST_F(Link, BreaksAtAnyPointOfAnEnumeration) {
    makeGadget();
    bind();
    const int64_t attached = wire.uframesOf("attach").back();
    const std::vector<int64_t> requests = wire.uframesOf("control", attached);
    std::vector<int64_t> delays = {1, 500, 1000, 1600, 2200};
    for (size_t i = 0; i < requests.size(); i += 9) {
        delays.push_back(requests[i] - attached);
    }
    for (const int64_t delay : delays) {
        pull();
        const int64_t at = wire.uframeIn(1);
        wire.plug(at);
        wire.unplug(at + delay);
        ASSERT_TRUE(waitFor([&] { return wire.uframe() > at + delay; }));
        // Not always attached at once: after a failure the host takes the port's power for a while.
        EXPECT_EQ(wire.counter("attached"), 0) << delay;
    }
    // The host may still be making a card for the last device, which goes only afterwards.
    ASSERT_TRUE(waitFor([] { return UsbHost::attribute("devnum").empty(); }));
    wire.plug();
    ASSERT_TRUE(UsbHost::waitForCard(true, 5 * kSecond));
    stream();
    expectSoundAfresh();
}

}  // namespace
}  // namespace uafd
