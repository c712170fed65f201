// SPDX-License-Identifier: Apache-2.0
// Messages to the daemon and from it, byte by byte, and a daemon that is not there.
#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/companion_test.h"

namespace uafd {
namespace {

using testing::ElementsAre;
using Message = DaemonEnds::Message;

class CompanionMessagesTest : public CompanionTest {
  protected:
    void SetUp() override {
        openBesideDaemon(UAFD_EVENTS);
        before = companion.counts();
    }

    uafd_counts before{};
};

TEST_F(CompanionMessagesTest, SendsWhatTheAppMaySet) {
    EXPECT_EQ(companion.sync(), 0);
    EXPECT_EQ(companion.setSpeakerVolume(-1), 0);
    EXPECT_EQ(companion.setSpeakerVolume(-32768), 0);
    EXPECT_EQ(companion.setSpeakerVolume(1280), 0);
    EXPECT_EQ(companion.setSpeakerMute(true), 0);
    EXPECT_EQ(companion.setSpeakerMute(false), 0);
    EXPECT_EQ(uafd_companion_set_speaker_mute(companion.get(), 7), 0);
    EXPECT_THAT(daemon.messages(),
                ElementsAre(Message{7, 0}, Message{3, 0xFFFF}, Message{3, 0x8000}, Message{3, 1280},
                            Message{5, 1}, Message{5, 0}, Message{5, 1}));
    EXPECT_EQ(companion.counts().messages_sent - before.messages_sent, 7U);
}

TEST_F(CompanionMessagesTest, SendsWithNothingElseOpen) {
    ASSERT_EQ(0, open(0));
    EXPECT_EQ(companion.setSpeakerMute(true), 0);
    EXPECT_THAT(daemon.messages(), ElementsAre(Message{5, 1}));
}

TEST_F(CompanionMessagesTest, SaysThatNoDaemonRunsUntilOneDoes) {
    daemon.end();
    EXPECT_EQ(companion.sync(), -ECONNREFUSED);  // its socket's file still exists
    unlink(daemon.path("UdsIpcTx").c_str());
    EXPECT_EQ(companion.sync(), -ECONNREFUSED);
    EXPECT_EQ(companion.counts().messages_failed, 2U);
    daemon.bindSocket();
    EXPECT_EQ(companion.sync(), 0);
    EXPECT_THAT(daemon.messages(), ElementsAre(Message{7, 0}));
}

TEST_F(CompanionMessagesTest, DoesNotWaitForADaemonThatTakesNone) {
    size_t taken = 0;
    int result = 0;
    while ((result = companion.sync()) == 0) {
        ++taken;
    }
    EXPECT_EQ(result, -EAGAIN);
    EXPECT_EQ(daemon.messages().size(), taken);
}

struct Received {
    const char* name;
    Message message;
    uafd_event_type type;
    int value;
};

class Told : public CompanionMessagesTest, public testing::WithParamInterface<Received> {};

TEST_P(Told, IsDelivered) {
    daemon.send(GetParam().message.first, GetParam().message.second);
    const auto event = companion.nextEvent();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->type, GetParam().type);
    EXPECT_EQ(event->value, GetParam().value);
    EXPECT_FALSE(companion.nextEvent());
    EXPECT_EQ(companion.counts().events - before.events, 1U);
}

// A volume's upper half has no meaning; for a state or a mute every value but 0 is 1.
INSTANTIATE_TEST_SUITE_P(
    Of, Told,
    testing::Values(Received{"UsbConfigured", {0, 1}, UAFD_USB_STATE, 1},
                    Received{"UsbDisconnected", {0, 0}, UAFD_USB_STATE, 0},
                    Received{"SpeakerOn", {1, 1}, UAFD_SPEAKER_STATE, 1},
                    Received{"SpeakerOff", {1, 0}, UAFD_SPEAKER_STATE, 0},
                    Received{"MicOn", {2, 1}, UAFD_MIC_STATE, 1},
                    Received{"MicOff", {2, 0}, UAFD_MIC_STATE, 0},
                    Received{"SpeakerVolume", {3, 0xABCDFF00}, UAFD_SPEAKER_VOLUME, -256},
                    Received{"LoudestSpeakerVolume", {3, 0x7FFF}, UAFD_SPEAKER_VOLUME, 32767},
                    Received{"MicVolume", {4, 0xFFFF8000}, UAFD_MIC_VOLUME, -32768},
                    Received{"SpeakerMute", {5, 1}, UAFD_SPEAKER_MUTE, 1},
                    Received{"SpeakerUnmute", {5, 0}, UAFD_SPEAKER_MUTE, 0},
                    Received{"MicMute", {6, 0x10000}, UAFD_MIC_MUTE, 1},
                    Received{"MicUnmute", {6, 0}, UAFD_MIC_MUTE, 0}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CompanionMessagesTest, DeliversEventsInTheirOrder) {
    daemon.send(0, 1);
    daemon.send(1, 1);
    daemon.send(2, 0);
    for (const uafd_event_type type : {UAFD_USB_STATE, UAFD_SPEAKER_STATE, UAFD_MIC_STATE}) {
        const auto event = companion.nextEvent();
        ASSERT_TRUE(event);
        EXPECT_EQ(event->type, type);
    }
}

TEST_F(CompanionMessagesTest, DropsWhatIsNoMessage) {
    const uint32_t words[] = {0, 1, 2};
    daemon.sendBytes(words, 0);
    daemon.sendBytes(words, 4);
    daemon.sendBytes(words, 7);
    daemon.sendBytes(words, 12);
    daemon.send(7, 0);
    daemon.send(8, 0);
    daemon.send(6, 1);
    const auto event = companion.nextEvent();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->type, UAFD_MIC_MUTE);
    EXPECT_EQ(companion.counts().datagrams_bad, 6U);
    EXPECT_EQ(companion.counts().events - before.events, 1U);
}

TEST_F(CompanionMessagesTest, LosesNothingOfADaemonThatRestarts) {
    daemon.send(1, 1);
    daemon.end();
    daemon.bindSocket();
    daemon.send(0, 1);
    EXPECT_EQ(companion.nextEvent()->type, UAFD_SPEAKER_STATE);
    EXPECT_EQ(companion.nextEvent()->type, UAFD_USB_STATE);
}

}  // namespace
}  // namespace uafd
