// SPDX-License-Identifier: Apache-2.0
// The daemon over the wire: what a user sets in the host's mixer reaches the app, what the app sets
// reaches the host's mixer, and the app is told of the streams that the host opens and closes.
#include <cstdint>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/usb/host_mixer.h"
#include "board/kit/usb/usb_host.h"
#include "tests/board/usb_daemon/wire_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr Ns kHandled = 20 * kMs;
constexpr int kVolumes[] = {-256, -2560, -12800, -25600, 0};  // from a dB below the top to mute's
constexpr Direction kDirections[] = {kSpeakerDirection, kMicDirection};

class Settings : public WireCase {
  protected:
    std::vector<Message> toldAll() const { return app->messageValues(messagesBefore); }
    void forgetAll() {
        forget();
        messagesBefore = app->messages().size();
    }
    // Each of them once, in both directions; only the app is told, and of nothing else.
    void expectTheHostsSettingsToReachTheApp() {
        for (const Direction& direction : kDirections) {
            SCOPED_TRACE(direction.name);
            for (const int volume : kVolumes) {
                forgetAll();
                host.setVolume(direction, volume);
                sleepFor(kHandled);
                EXPECT_THAT(toldAll(), ElementsAre(Message{volumeOf(direction),
                                                           static_cast<uint16_t>(volume)}));
                EXPECT_EQ(host.volume(direction), volume);
            }
            for (const bool mute : {true, false}) {
                forgetAll();
                host.setMute(direction, mute);
                sleepFor(kHandled);
                EXPECT_THAT(toldAll(), ElementsAre(Message{muteOf(direction), mute ? 1U : 0U}));
            }
        }
    }
    // The host's programs are told of it, and see it; the app, which has set it, is not.
    void expectTheAppsSettingsToReachTheHost() {
        HostMixer mixer;
        for (const int volume : kVolumes) {
            expectVolume(&mixer, static_cast<uint16_t>(volume), volume);
        }
        expectVolume(&mixer, 0xABCD0000 | static_cast<uint16_t>(-512), -512);
        expectVolume(&mixer, 0x7FFF, 0);  // what lies outside the range is its nearer end
        expectVolume(&mixer, 0x8000, -25600);
        expectVolume(&mixer, 0, 0);
        for (const uint32_t mute : {1U, 0U, 0x80000000U, 0U}) {
            SCOPED_TRACE(mute);
            forgetAll();
            mixer.takeEvents();
            EXPECT_EQ(app->send({muteOf(kSpeakerDirection), mute}), 0);
            EXPECT_TRUE(mixer.waitForEvent(HostMixer::muteControl(kSpeakerDirection)));
            EXPECT_EQ(mixer.isMuted(kSpeakerDirection), mute != 0);
            EXPECT_THAT(toldAll(), IsEmpty());
        }
        EXPECT_EQ(mixer.volume(kMicDirection), 0);
        EXPECT_FALSE(mixer.isMuted(kMicDirection));
    }

  private:
    void expectVolume(HostMixer* mixer, uint32_t data, int volume) {
        SCOPED_TRACE(data);
        forgetAll();
        mixer->takeEvents();
        EXPECT_EQ(app->send({volumeOf(kSpeakerDirection), data}), 0);
        EXPECT_TRUE(mixer->waitForEvent(HostMixer::volumeControl(kSpeakerDirection)));
        EXPECT_EQ(mixer->volume(kSpeakerDirection), volume);
        EXPECT_THAT(toldAll(), IsEmpty());
    }

    size_t messagesBefore = 0;
};

TEST_F(Settings, OfTheHostsMixerReachTheApp) {
    expectTheHostsSettingsToReachTheApp();
    expectWhole();
}

TEST_F(Settings, OfTheAppReachTheHostsMixer) {
    expectTheAppsSettingsToReachTheHost();
    expectWhole();
}

// The microphone's are the host's alone.
TEST_F(Settings, OfTheMicrophoneAreNotTheApps) {
    forgetAll();
    HostMixer mixer;
    for (const uint32_t type : {volumeOf(kMicDirection), muteOf(kMicDirection)}) {
        EXPECT_EQ(app->send({type, 1}), 0);
        sleepFor(kHandled);
        EXPECT_EQ(said("got unknown msg: type=" + std::to_string(type) + ", msg: 0x00000001"), 1);
    }
    EXPECT_THAT(mixer.takeEvents(), IsEmpty());
    EXPECT_THAT(toldAll(), IsEmpty());
}

TEST_F(Settings, GoBothWaysWhileBothStreamsRun) {
    switchOn(kBothStreams);
    expectTheHostsSettingsToReachTheApp();
    expectTheAppsSettingsToReachTheHost();
    EXPECT_TRUE(hasThreads(kStreamingThreads));
    expectWhole();
}

// A host that comes reads what the board has, and tries each volume one step off.
TEST_F(Settings, AreTheBoardsWhenAHostComes) {
    host.setVolume(kSpeakerDirection, -2560);
    host.setVolume(kMicDirection, -5120);
    host.setMute(kMicDirection, true);
    EXPECT_EQ(app->send({muteOf(kSpeakerDirection), 1}), 0);
    sleepFor(kHandled);
    host.unplug();
    EXPECT_EQ(app->send({volumeOf(kSpeakerDirection), static_cast<uint16_t>(-3840)}), 0);
    sleepFor(kHandled);
    host.plug();
    HostMixer mixer;
    EXPECT_EQ(mixer.volume(kSpeakerDirection), -3840);
    EXPECT_EQ(mixer.volume(kMicDirection), -5120);
    EXPECT_TRUE(mixer.isMuted(kSpeakerDirection));
    EXPECT_TRUE(mixer.isMuted(kMicDirection));
    EXPECT_TRUE(waitUntilTold(volumeOf(kSpeakerDirection), static_cast<uint16_t>(-3840)));
    EXPECT_TRUE(waitUntilTold(volumeOf(kMicDirection), static_cast<uint16_t>(-5120)));
    expectWhole();
}

// ---- Streams -----------------------------------------------------------------------------------

class StreamStates : public WireCase, public testing::WithParamInterface<Direction> {};

TEST_P(StreamStates, ReachTheApp) {
    const Direction direction = GetParam();
    const bool isSpeaker = direction == kSpeakerDirection;
    const Direction other = isSpeaker ? kMicDirection : kSpeakerDirection;
    for (const Streams& around : {kNoStream, Streams{"Other", !isSpeaker, isSpeaker}}) {
        SCOPED_TRACE(around.name);
        switchOn(around);
        forget();
        for (int i = 0; i < 3; ++i) {
            isSpeaker ? host.play(noise) : host.record();
            const Ns on = now();
            ASSERT_TRUE(waitUntilTold(direction.channel, 1));
            EXPECT_LE(now() - on, 20 * kMs);
            sleepFor(50 * kMs);
            isSpeaker ? host.stopPlaying() : host.stopRecording();
            const Ns off = now();
            ASSERT_TRUE(waitUntilTold(direction.channel, 0));
            EXPECT_LE(now() - off, 42 * kMs);
        }
        EXPECT_THAT(told(direction.channel), ElementsAre(1, 0, 1, 0, 1, 0));
        EXPECT_THAT(told(other.channel), IsEmpty());
        switchOff();
        ASSERT_TRUE(hasThreads(kIdleThreads));
    }
    expectWhole();
}

INSTANTIATE_TEST_SUITE_P(UsbDaemon, StreamStates, testing::Values(kSpeakerDirection, kMicDirection),
                         [](const auto& info) {
                             return info.param == kSpeakerDirection ? "Speaker" : "Mic";
                         });

// ---- What a sync-up tells ----------------------------------------------------------------------

class SyncUp : public Settings {
  protected:
    std::vector<Message> answer() {
        forgetAll();
        EXPECT_EQ(app->send({kSyncUp, 0}), 0);
        sleepFor(kHandled);
        return toldAll();
    }
};

TEST_F(SyncUp, TellsWhatTheHostDoes) {
    for (const Streams& streams : kEveryStreams) {
        SCOPED_TRACE(streams.name);
        switchOn(streams);
        EXPECT_THAT(answer(), ElementsAre(Message{kUsbState, 1}, Message{1, streams.speaker},
                                          Message{2, streams.mic}));
        switchOff();
        ASSERT_TRUE(hasThreads(kIdleThreads));
    }
    host.unplug();
    sleepFor(kHandled);
    EXPECT_THAT(answer(), ElementsAre(Message{kUsbState, 0}));
    host.plug();
    EXPECT_THAT(answer(), ElementsAre(Message{kUsbState, 1}, Message{1, 0}, Message{2, 0}));
}

}  // namespace
}  // namespace uafd
