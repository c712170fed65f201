// SPDX-License-Identifier: Apache-2.0
// What each event record, each message of the app and each state of a channel leads to.
#include <vector>

#include <gmock/gmock.h>

#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using testing::IsEmpty;

class Events : public BoardCase {
  protected:
    void SetUp() override {
        start();
        app->waitForMessages(5);  // configured, two volumes, two mutes
    }

    // Delivers a raw record; nothing changes on the host's side.
    void deliver(uint32_t type, uint32_t data) {
        look();
        queue(type, data);
        ASSERT_TRUE(settle());
        sleepFor(50 * kMs);
    }

    // Sends the message; returns the requests that reached the driver.
    std::vector<std::string> requestsAfter(Message message) {
        look();
        const Ns since = now();
        EXPECT_EQ(app->send(message), 0);
        sleepFor(50 * kMs);
        std::vector<std::string> requests;
        for (const HostEvent& event : host.eventsSince(since)) {
            requests.push_back(event.text);
        }
        return requests;
    }
};

// ---- Event records -----------------------------------------------------------------------------

TEST_F(Events, ASecondBindCountsAndSearchesAgain) {
    deliver(0, 0);
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 1);
    deliver(1, 0);
    EXPECT_EQ(said("UAC Vexa is disabled, bindcnt=1, bindbad=0"), 1);
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Events, BindFindsTheCardAtAnyIndex) {
    host.command("unbind");
    host.command("bind 5");
    ASSERT_TRUE(daemon.waitForLog("UAC Vexa is enabled, using hw:5"));
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Events, BindWithoutACardLeavesTheDaemonUnbound) {
    deliver(1, 0);
    host.command("card remove");
    deliver(0, 0);
    EXPECT_EQ(said("Audio gadget driver is not ready."), 1);
    deliver(2, 1);
    EXPECT_EQ(said("Speaker active while USB is not binded, will try binding it now, bindbad=1"),
              1);
    EXPECT_EQ(said("Audio gadget driver is not ready."), 1);
    EXPECT_EQ(said("devName not set"), 1);
    host.command("card add");
    deliver(2, 1);
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 1);
    EXPECT_THAT(told(), ElementsAre(Message{kSpeaker, 1}));
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Events, UnbindStopsBothChannelsAndForgetsTheCard) {
    bothOn();
    deliver(1, 0);
    EXPECT_TRUE(hasThreads(kIdleThreads));
    EXPECT_THAT(told(), testing::UnorderedElementsAre(Message{kSpeaker, 0}, Message{kMic, 0}));
    deliver(2, 0);
    EXPECT_EQ(said("devName not set"), 1);
    deliver(0, 0);
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Events, UnbindWhileUnboundTouchesNothing) {
    deliver(1, 0);
    deliver(1, 0);
    EXPECT_EQ(said("intfUpdate to #, current state #"), 0);
    EXPECT_EQ(said("UAC Vexa is disabled, bindcnt=0, bindbad=0"), 1);
}

TEST_F(Events, AnActivationWhileUnboundBindsWithoutCounting) {
    deliver(1, 0);
    deliver(2, 1);
    EXPECT_EQ(said("Speaker active while USB is not binded, will try binding it now, bindbad=1"),
              1);
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 1);
    EXPECT_THAT(told(), ElementsAre(Message{kSpeaker, 1}));
    deliver(1, 0);
    EXPECT_EQ(said("UAC Vexa is disabled, bindcnt=-1, bindbad=1"), 1);
    deliver(3, 1);
    EXPECT_EQ(said("Mic active while USB is not binded, will try binding it now, bindbad=2"), 1);
    EXPECT_THAT(told(), ElementsAre(Message{kMic, 1}));
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Events, ASwitchingOffWhileUnboundDoesNotBind) {
    deliver(1, 0);
    deliver(3, 0);
    EXPECT_EQ(said("devName not set"), 1);
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 0);
}

TEST_F(Events, AnyValueButZeroSwitchesOn) {
    deliver(2, 0x80000000);
    EXPECT_THAT(told(), ElementsAre(Message{kSpeaker, 1}));
    deliver(3, 256);
    EXPECT_THAT(told(), ElementsAre(Message{kMic, 1}));
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Events, VolumesAreTheLowHalfAndReachTheAppUnchanged) {
    deliver(4, 0x0001FF80);
    EXPECT_THAT(told(), ElementsAre(Message{3, 0xFF80}));
    EXPECT_EQ(said("setVolume volume=-128, sending: type=0x00000003, data=0x0000FF80"), 1);
    deliver(5, 0x7FFF);
    EXPECT_THAT(told(), ElementsAre(Message{4, 0x7FFF}));
}

TEST_F(Events, MutesBecomeOneOrZero) {
    deliver(6, 2);
    EXPECT_THAT(told(), ElementsAre(Message{5, 1}));
    deliver(6, 0);
    EXPECT_THAT(told(), ElementsAre(Message{5, 0}));
    deliver(7, 0x80000000);
    EXPECT_THAT(told(), ElementsAre(Message{6, 1}));
}

TEST_F(Events, OtherTypesAreInvalidAndChangeNothing) {
    deliver(8, 1);
    EXPECT_EQ(said("invalid msg: type=8"), 1);
    deliver(0xFFFFFFFF, 1);
    EXPECT_EQ(said("invalid msg: type=4294967295"), 1);
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Events, AFailedReadHandlesTheRecordBeforeAgain) {
    deliver(6, 1);
    const size_t messages = app->messages().size();
    host.command("fault read 5");
    EXPECT_TRUE(app->waitForMessages(messages + 1));
    EXPECT_EQ(app->messageValues(messages), (std::vector<Message>{{5, 1}}));
    EXPECT_EQ(daemon.count("read msg: type=6, data=0x00000001, size=-1; "
                           "state={cardnum:1 bindcnt=1 bindbad:0}"),
              1);
}

// ---- Messages of the app -----------------------------------------------------------------------

TEST_F(Events, TheAppSetsTheSpeakersVolumeAndMute) {
    EXPECT_THAT(requestsAfter({3, 0xABCDFFFF}), ElementsAre("uac SET_SPK_VOLUME -1 0"));
    EXPECT_THAT(requestsAfter({5, 7}), ElementsAre("uac SET_SPK_MUTE 7 0"));
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(Events, ARefusedRequestIsLoggedAndForgotten) {
    host.command("fault set_volume 19");
    EXPECT_THAT(requestsAfter({3, 5}), ElementsAre("uac SET_SPK_VOLUME 0 -19"));
    EXPECT_EQ(said("rxLoop: ioctl failed: <-1:19>"), 1);
    EXPECT_THAT(requestsAfter({3, 6}), ElementsAre("uac SET_SPK_VOLUME 6 0"));
}

TEST_F(Events, OtherMessagesOfTheAppChangeNothing) {
    for (const uint32_t type : {0U, 1U, 2U, 4U, 6U, 8U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(type);
        EXPECT_THAT(requestsAfter({type, 1}), IsEmpty());
        EXPECT_EQ(said("got unknown msg: type=" + std::to_string(type) + ", msg: 0x00000001"), 1);
        EXPECT_THAT(told(), IsEmpty());
    }
}

TEST_F(Events, ASyncUpTellsTheStateOfBothChannels) {
    requestsAfter({7, 0});
    EXPECT_THAT(told(), ElementsAre(Message{0, 1}, Message{1, 0}, Message{2, 0}));
    deliver(2, 1);
    requestsAfter({7, 0});
    EXPECT_THAT(told(), ElementsAre(Message{0, 1}, Message{1, 1}, Message{2, 0}));
    host.command("usb_state DISCONNECTED");
    sleepFor(50 * kMs);
    requestsAfter({7, 0});
    EXPECT_THAT(told(), ElementsAre(Message{0, 0}));
}

// ---- States of a channel -----------------------------------------------------------------------

class Channel : public Events, public testing::WithParamInterface<uint32_t> {
  protected:
    uint32_t channel() const { return GetParam(); }
    uint32_t event() const { return channel() + 1; }
    const char* stream() const { return channel() == kSpeaker ? "capture" : "playback"; }
    // The host's data flows all the time; only records switch the channels on and off.
    void SetUp() override {
        Events::SetUp();
        host.command(channel() == kSpeaker ? "speaker on" : "mic on");
        ASSERT_TRUE(waitForChannel(channel(), true, 0));
        deliver(event(), 0);
        ASSERT_TRUE(hasThreads(kIdleThreads));
    }
};

TEST_P(Channel, StoppedIsStartedOnceByTwoOnEvents) {
    deliver(event(), 1);
    EXPECT_EQ(said("intfUpdate to 1, current state 3"), 1);
    EXPECT_THAT(told(), ElementsAre(Message{channel(), 1}));
    deliver(event(), 1);
    EXPECT_EQ(said("intfUpdate to 1, current state 1"), 1);
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_EQ(findDamage(), "");
}

TEST_P(Channel, StoppedIgnoresAnOffEvent) {
    deliver(event(), 0);
    EXPECT_EQ(said("intfUpdate to 0, current state 3"), 1);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_P(Channel, RunningIsStoppedOnceByTwoOffEvents) {
    deliver(event(), 1);
    const size_t messages = app->messages().size();
    queue(event(), 0);
    deliver(event(), 0);
    EXPECT_TRUE(hasThreads(kIdleThreads));
    EXPECT_EQ(app->messageValues(messages), (std::vector<Message>{{channel(), 0}}));
    EXPECT_EQ(daemon.count("intfUpdate to 0, current state 2"), 1);
}

TEST_P(Channel, StoppingIsCancelledByAnOnEvent) {
    deliver(event(), 1);
    const size_t messages = app->messages().size();
    const Ns since = now();
    queue(event(), 0);
    sleepFor(6 * kMs);
    deliver(event(), 1);
    EXPECT_EQ(said("intfUpdate to 1, current state 2"), 1);
    EXPECT_EQ(said("stopDelayCnt = 1") + said("stopDelayCnt = 2"), 1);
    sleepFor(kSecond);
    EXPECT_EQ(app->messages().size(), messages);
    EXPECT_EQ(host.countEvents(std::string(stream()) + " close", since), 0);
    EXPECT_EQ(findDamage(), "");
}

TEST_P(Channel, StaysStoppedWhenItsStartFailsAndStartsTheNextTime) {
    for (const char* step : {"open 5", "hw_params 5", "rate 22", "prepare 5"}) {
        SCOPED_TRACE(step);
        host.command(std::string("fault ") + stream() + "." + step);
        deliver(event(), 1);
        EXPECT_EQ(said("failed to start audio"), 1);
        EXPECT_THAT(told(), IsEmpty());
        deliver(event(), 1);
        EXPECT_THAT(told(), ElementsAre(Message{channel(), 1}));
        deliver(event(), 0);
        EXPECT_TRUE(hasThreads(kIdleThreads));
    }
    EXPECT_EQ(findDamage(), "");
}

INSTANTIATE_TEST_SUITE_P(Both, Channel, testing::Values(1, 2),
                         [](const auto& info) { return info.param == 1 ? "Speaker" : "Mic"; });

}  // namespace
}  // namespace uafd
