// SPDX-License-Identifier: Apache-2.0
// The ALSA plugin's mixer: the host's volumes and mutes, in both directions.
#include <cerrno>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/daemon_ends.h"
#include "tests/unit/alsa_config.h"

namespace uafd {
namespace {

using testing::Contains;
using testing::ElementsAre;
using Message = DaemonEnds::Message;

enum Element : unsigned { kSpeakerVolume = 1, kSpeakerSwitch, kMicVolume, kMicSwitch };

class AlsaControl : public testing::Test {
  protected:
    AlsaControl() { daemon.bindSocket(); }
    ~AlsaControl() override {
        if (ctl != nullptr) {
            snd_ctl_close(ctl);
        }
    }
    int open() { return open("uafd:" + folder.path(), config); }
    int open(const std::string& name, const AlsaConfig& from) {
        return snd_ctl_open_lconf(&ctl, name.c_str(), SND_CTL_NONBLOCK, from.get());
    }
    // The volumes' dB are part of what ALSA's simple mixer reads.
    void openMixer() {
        ASSERT_EQ(open(), 0) << config.said();
        daemon.messages();
    }
    long value(unsigned number) {
        snd_ctl_elem_value_t* value = nullptr;
        snd_ctl_elem_value_alloca(&value);
        snd_ctl_elem_value_set_numid(value, number);
        EXPECT_EQ(snd_ctl_elem_read(ctl, value), 0);
        return snd_ctl_elem_value_get_integer(value, 0);
    }
    std::vector<long> values() {
        return {value(kSpeakerVolume), value(kSpeakerSwitch), value(kMicVolume), value(kMicSwitch)};
    }
    int set(unsigned number, long to) {
        snd_ctl_elem_value_t* value = nullptr;
        snd_ctl_elem_value_alloca(&value);
        snd_ctl_elem_value_set_numid(value, number);
        snd_ctl_elem_value_set_integer(value, 0, to);
        return snd_ctl_elem_write(ctl, value);
    }
    // The numbers of the elements that have changed, in the order of the events.
    std::vector<unsigned> changes() {
        std::vector<unsigned> numbers;
        snd_ctl_event_t* event = nullptr;
        snd_ctl_event_alloca(&event);
        while (snd_ctl_read(ctl, event) == 1) {
            EXPECT_EQ(snd_ctl_event_get_type(event), SND_CTL_EVENT_ELEM);
            EXPECT_EQ(snd_ctl_event_elem_get_mask(event), unsigned{SND_CTL_EVENT_MASK_VALUE});
            numbers.push_back(snd_ctl_event_elem_get_numid(event));
        }
        return numbers;
    }
    bool isReadable() {
        pollfd source{};
        EXPECT_EQ(snd_ctl_poll_descriptors(ctl, &source, 1), 1);
        return poll(&source, 1, 0) == 1;
    }

    TempDir folder;
    DaemonEnds daemon{folder};
    AlsaConfig config;
    snd_ctl_t* ctl = nullptr;
};

TEST_F(AlsaControl, HasVolumesAndSwitches) {
    openMixer();
    snd_ctl_elem_list_t* list = nullptr;
    snd_ctl_elem_list_alloca(&list);
    ASSERT_EQ(snd_ctl_elem_list_alloc_space(list, 10), 0);
    ASSERT_EQ(snd_ctl_elem_list(ctl, list), 0);
    std::string described;
    for (unsigned i = 0; i < snd_ctl_elem_list_get_used(list); ++i) {
        snd_ctl_elem_info_t* info = nullptr;
        snd_ctl_elem_info_alloca(&info);
        snd_ctl_elem_info_set_numid(info, snd_ctl_elem_list_get_numid(list, i));
        ASSERT_EQ(snd_ctl_elem_info(ctl, info), 0);
        described += snd_ctl_elem_info_get_name(info);
        described += snd_ctl_elem_info_is_writable(info) != 0 ? " rw" : " r";
        if (snd_ctl_elem_info_get_type(info) == SND_CTL_ELEM_TYPE_INTEGER) {
            described += " " + std::to_string(snd_ctl_elem_info_get_min(info)) + ".." +
                         std::to_string(snd_ctl_elem_info_get_max(info)) + " by " +
                         std::to_string(snd_ctl_elem_info_get_step(info));
        }
        described += "\n";
    }
    snd_ctl_elem_list_free_space(list);
    EXPECT_EQ(described,
              "Speaker Playback Volume rw 0..100 by 1\n"
              "Speaker Playback Switch rw\n"
              "Mic Capture Volume r 0..100 by 1\n"
              "Mic Capture Switch r\n");
    EXPECT_THAT(values(), ElementsAre(100, 1, 100, 1));
}

TEST_F(AlsaControl, FollowsTheHost) {
    openMixer();
    ASSERT_EQ(snd_ctl_subscribe_events(ctl, 1), 0);
    EXPECT_FALSE(isReadable());
    daemon.send(3, 0x1234FB00);  // the upper half is undefined
    EXPECT_TRUE(isReadable());
    EXPECT_THAT(changes(), ElementsAre(kSpeakerVolume));
    EXPECT_FALSE(isReadable());
    EXPECT_THAT(values(), ElementsAre(95, 1, 100, 1));
    daemon.send(5, 1);
    daemon.send(4, static_cast<uint32_t>(-512));
    daemon.send(6, 1);
    daemon.send(6, 1);
    EXPECT_THAT(values(), ElementsAre(95, 1, 100, 1)) << "a subscriber takes the events first";
    EXPECT_THAT(changes(), ElementsAre(kSpeakerSwitch, kMicVolume, kMicSwitch));
    EXPECT_THAT(values(), ElementsAre(95, 0, 98, 0));
    daemon.send(6, 1);
    EXPECT_THAT(changes(), ElementsAre()) << "it is muted already";
}

TEST_F(AlsaControl, IsUpToDateWithoutEvents) {
    openMixer();
    daemon.send(3, static_cast<uint32_t>(-1280));
    daemon.send(5, 1);
    EXPECT_THAT(values(), ElementsAre(95, 0, 100, 1));
}

TEST_F(AlsaControl, SetsTheSpeaker) {
    openMixer();
    EXPECT_EQ(set(kSpeakerVolume, 90), 1);
    EXPECT_EQ(set(kSpeakerSwitch, 0), 1);
    EXPECT_EQ(set(kSpeakerSwitch, 0), 0);
    EXPECT_EQ(set(kSpeakerSwitch, 1), 1);
    EXPECT_THAT(daemon.messages(),
                ElementsAre(Message{3, 0xF600}, Message{5, 1}, Message{5, 1}, Message{5, 0}));
    EXPECT_THAT(values(), ElementsAre(90, 1, 100, 1));
    EXPECT_EQ(set(kMicVolume, 99), -EPERM);
    EXPECT_EQ(set(kMicSwitch, 0), -EPERM);
    EXPECT_THAT(daemon.messages(), ElementsAre());
}

TEST_F(AlsaControl, KeepsVolumesInRangeAndCountsSteps) {
    openMixer();
    EXPECT_EQ(set(kSpeakerVolume, 95), 1);
    EXPECT_EQ(set(kSpeakerVolume, -1), 1);
    EXPECT_EQ(set(kSpeakerVolume, 101), 1);
    EXPECT_THAT(daemon.messages(),
                ElementsAre(Message{3, 0xFB00}, Message{3, 0x9C00}, Message{3, 0}));
    daemon.send(3, static_cast<uint32_t>(-1400));
    EXPECT_EQ(value(kSpeakerVolume), 95);
    daemon.send(3, static_cast<uint32_t>(-1410));
    EXPECT_EQ(value(kSpeakerVolume), 94);
    daemon.send(3, 0x8000);
    EXPECT_EQ(value(kSpeakerVolume), 0);
    daemon.send(3, 100);
    EXPECT_EQ(value(kSpeakerVolume), 100);
}

TEST_F(AlsaControl, TakesTheRangeFromTheConfiguration) {
    const AlsaConfig other("ctl.other { type uafd directory \"" + folder.path() +
                           "\" volume_min -12800 volume_max 575 volume_step 128 }\n"
                           "ctl.wrong { type uafd volume_min 5 }\n");
    ASSERT_EQ(open("other", other), 0) << other.said();
    daemon.messages();
    EXPECT_EQ(value(kSpeakerVolume), 104) << "the rest of the range is no whole step";
    EXPECT_EQ(set(kSpeakerVolume, 99), 1);
    EXPECT_THAT(daemon.messages(), ElementsAre(Message{3, 0xFF80}));
    snd_ctl_t* wrong = nullptr;
    EXPECT_EQ(snd_ctl_open_lconf(&wrong, "wrong", 0, other.get()), -EINVAL);
}

// The daemon, which is in the FIFOs' group, must be able to send to the socket.
TEST_F(AlsaControl, GivesItsSocketTheFifosGroup) {
    const gid_t group = geteuid() == 0 ? 12345 : getegid();  // only root may take any
    ASSERT_EQ(mkfifo(daemon.path("FifoTx").c_str(), 0660), 0);
    ASSERT_EQ(chown(daemon.path("FifoTx").c_str(), geteuid(), group), 0);
    openMixer();
    struct stat found {};
    ASSERT_EQ(stat(daemon.path("UdsIpcRx").c_str(), &found), 0);
    EXPECT_EQ(found.st_gid, group);
    EXPECT_EQ(found.st_mode & 07777, 0660U);
}

TEST_F(AlsaControl, TellsThatNoDaemonRuns) {
    openMixer();
    daemon.end();
    EXPECT_EQ(set(kSpeakerVolume, 90), -ECONNREFUSED);
    EXPECT_EQ(value(kSpeakerVolume), 100);
    daemon.bindSocket();
    EXPECT_EQ(set(kSpeakerVolume, 90), 1);
}

TEST_F(AlsaControl, IsForOneProgram) {
    openMixer();
    snd_ctl_t* second = nullptr;
    EXPECT_EQ(snd_ctl_open_lconf(&second, ("uafd:" + folder.path()).c_str(), 0, config.get()),
              -EBUSY);
}

// What alsamixer and amixer show: one element for each direction, in dB.
TEST_F(AlsaControl, IsASimpleMixer) {
    openMixer();
    snd_hctl_t* hctl = nullptr;
    ASSERT_EQ(snd_hctl_open_ctl(&hctl, std::exchange(ctl, nullptr)), 0);
    snd_mixer_t* mixer = nullptr;
    ASSERT_EQ(snd_mixer_open(&mixer, 0), 0);
    ASSERT_EQ(snd_mixer_attach_hctl(mixer, hctl), 0);
    ASSERT_EQ(snd_mixer_selem_register(mixer, nullptr, nullptr), 0);
    ASSERT_EQ(snd_mixer_load(mixer), 0);
    snd_mixer_elem_t* const speaker = snd_mixer_first_elem(mixer);
    ASSERT_NE(speaker, nullptr);
    EXPECT_STREQ(snd_mixer_selem_get_name(speaker), "Speaker");
    long min = 1;
    long max = 1;
    long decibels = 1;
    ASSERT_EQ(snd_mixer_selem_get_playback_dB_range(speaker, &min, &max), 0);
    EXPECT_EQ(min, -10000);
    EXPECT_EQ(max, 0);
    ASSERT_EQ(snd_mixer_selem_set_playback_dB_all(speaker, -500, 0), 0);
    EXPECT_THAT(daemon.messages(), Contains(Message{3, 0xFB00}));
    daemon.send(3, static_cast<uint32_t>(-2560));
    daemon.send(5, 1);
    EXPECT_GE(snd_mixer_handle_events(mixer), 0);
    ASSERT_EQ(snd_mixer_selem_get_playback_dB(speaker, SND_MIXER_SCHN_MONO, &decibels), 0);
    EXPECT_EQ(decibels, -1000);
    int isOn = 1;
    ASSERT_EQ(snd_mixer_selem_get_playback_switch(speaker, SND_MIXER_SCHN_MONO, &isOn), 0);
    EXPECT_EQ(isOn, 0);
    // As alsamixer's keys do: a little softer is the next step, however little.
    ASSERT_EQ(snd_mixer_selem_set_playback_dB_all(speaker, -1039, -1), 0);
    EXPECT_THAT(daemon.messages(), Contains(Message{3, 0xF500}));
    ASSERT_EQ(snd_mixer_selem_get_playback_dB(speaker, SND_MIXER_SCHN_MONO, &decibels), 0);
    EXPECT_EQ(decibels, -1100);
    snd_mixer_elem_t* const microphone = snd_mixer_elem_next(speaker);
    ASSERT_NE(microphone, nullptr);
    EXPECT_STREQ(snd_mixer_selem_get_name(microphone), "Mic");
    EXPECT_EQ(snd_mixer_selem_has_capture_volume(microphone), 1);
    EXPECT_EQ(snd_mixer_elem_next(microphone), nullptr);
    snd_mixer_close(mixer);
}

}  // namespace
}  // namespace uafd
