// SPDX-License-Identifier: Apache-2.0
// The kit's board with real USB: the host's mixer, where its streams are, and a daemon that comes
// up on the wire, streams, and is whole after the cable was away.
#include "board/kit/usb/wire_board.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/files.h"
#include "board/kit/usb/host_mixer.h"
#include "tests/board/usb/usb_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kCable[] =
    "/sys/devices/platform/ff2c0000.syscon/ff2c0000.syscon:usb2-phy@100/extcon/extcon0/cable.0/"
    "state";

// As a record carries it.
uint32_t volumeData(int volume) {
    return static_cast<uint16_t>(volume);
}

class Mixer : public DriverCase {
  protected:
    void SetUp() override {
        enumerate();
        sleepFor(50 * kMs);
        control->records();
        mixer.emplace();
    }
    void TearDown() override {
        mixer->setVolume(kSpeakerDirection, 0);
        mixer->setVolume(kMicDirection, 0);
    }

    std::optional<HostMixer> mixer;
};

TEST_F(Mixer, MovesTheBoard) {
    mixer->setVolume(kSpeakerDirection, -1280);
    mixer->setVolume(kMicDirection, -512);
    mixer->setMute(kSpeakerDirection, true);
    mixer->setMute(kMicDirection, true);
    mixer->setMute(kMicDirection, false);
    mixer->setMute(kSpeakerDirection, false);
    EXPECT_THAT(control->records(),
                ElementsAre(Record(4, volumeData(-1280)), Record(5, volumeData(-512)), Record(6, 1),
                            Record(7, 1), Record(7, 0), Record(6, 0)));
    EXPECT_EQ(mixer->volume(kSpeakerDirection), -1280);
    EXPECT_EQ(mixer->volume(kMicDirection), -512);
}

TEST_F(Mixer, SeesWhatTheBoardMoves) {
    EXPECT_THAT(mixer->takeEvents(), IsEmpty());
    int16_t volume = -2560;
    uint32_t mute = 1;
    control->request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_VOLUME, &volume);
    EXPECT_TRUE(mixer->waitForEvent(HostMixer::volumeControl(kSpeakerDirection)));
    EXPECT_EQ(mixer->volume(kSpeakerDirection), -2560);
    EXPECT_EQ(mixer->volume(kMicDirection), 0);
    EXPECT_FALSE(mixer->isMuted(kSpeakerDirection));
    control->request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_MUTE, &mute);
    EXPECT_TRUE(mixer->waitForEvent(HostMixer::muteControl(kSpeakerDirection)));
    EXPECT_TRUE(mixer->isMuted(kSpeakerDirection));
    EXPECT_FALSE(mixer->isMuted(kMicDirection));
    EXPECT_FALSE(mixer->waitForEvent(HostMixer::volumeControl(kMicDirection), 50 * kMs));
    mixer->setMute(kSpeakerDirection, false);
}

class Streams : public DriverCase {
  protected:
    void SetUp() override { enumerate(); }
};

// Measures of the kit that every figure of latency stands on.
TEST_F(Streams, AreWhereTheWireSays) {
    WireAudioHost host(&wire, gadget.get());
    host.play(noise);
    host.record();
    sleepFor(20 * kMs);
    host.stopRecording();
    // The streams before do not count.
    PcmRecorder app(kDriverPcm);
    host.play(noise);
    ASSERT_TRUE(waitFor([&] { return app.frames() > 4800; }));
    host.stopPlaying();
    const int64_t sent = host.position(kSpeakerDirection).frames;
    sleepFor(30 * kMs);  // until it has read what is left
    app.stop();
    const Samples heard = app.take();
    EXPECT_EQ(heard.back(), noise(sent - 1));
    EXPECT_EQ(find(heard, heard.size() - 480, render(noise, 0, sent)), sent - 480);

    host.record();
    sleepFor(20 * kMs);
    EXPECT_FALSE(host.daemonsFirstFrame());
    PcmPlayer daemon(kDriverPcm, noise);
    sleepFor(100 * kMs);
    const std::optional<int64_t> first = host.daemonsFirstFrame();
    const Samples recorded = host.takeRecording();
    ASSERT_TRUE(first);
    ASSERT_LT(*first + 960, static_cast<int64_t>(recorded.size()));
    EXPECT_EQ(firstSound(recorded),
              static_cast<size_t>(*first) + firstSound(render(noise, 0, 960)));
    EXPECT_EQ(recorded[static_cast<size_t>(*first) + 480], noise(480));
    host.stopRecording();
}

TEST(WireBoard, HasADaemonThatSurvivesTheCable) {
    WireBoard board("wire_board");
    AppOptions options;
    options.speaks = false;
    board.start(true, options);
    EXPECT_EQ(contents(kCable), "1\n");
    const size_t mark = board.app->messages().size();
    board.host.unplug();
    EXPECT_EQ(contents(kCable), "0\n");
    EXPECT_TRUE(waitFor([&] {
        return board.app->messageValues(mark) == std::vector<Message>{{0, 0}};
    }));
    board.host.plug();
    EXPECT_EQ(contents(kCable), "1\n");
    EXPECT_TRUE(waitFor([&] {
        const std::vector<Message> told = board.app->messageValues(mark);
        return std::count(told.begin(), told.end(), Message{0, 1}) > 0;
    }));
    board.app->pauseSpeaking(false);
    EXPECT_EQ(board.findDamage(), "");
}

}  // namespace
}  // namespace uafd
