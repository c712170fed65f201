// SPDX-License-Identifier: Apache-2.0
// The gadget driver: sound bit for bit both ways, and what the daemon is told of streams, volumes
// and the bus.
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "board/kit/sound.h"
#include "board/kit/usb/usb_monitor.h"
#include "tests/board/uevents.h"
#include "tests/board/usb/usb_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t kHeardFrames = 24000;
constexpr uint8_t kFeedbackIn = 0x83;
constexpr char kStatePath[] = "/sys/class/android_usb/android0/state";
constexpr uint32_t kSpeakerActive = 2;
constexpr uint32_t kMicActive = 3;

class Sound : public DriverCase {
  protected:
    // Both directions at a time, from their first frame to the last that was recorded.
    void expectSound(bool fullSpeed, int64_t ppb) {
        enumerate({}, fullSpeed);
        wire.setPpb(ppb);
        UsbMonitor monitor;
        PcmRecorder app(kDriverPcm);
        PcmRecorder hostMic(kHostPcm);
        PcmPlayer appMic(kDriverPcm, noise);
        PcmPlayer hostSpeaker(kHostPcm, noise);
        const Ns begin = now();
        ASSERT_TRUE(waitFor(
            [&] { return app.frames() > kHeardFrames && hostMic.frames() > kHeardFrames; }));
        EXPECT_LT(now() - begin, 700 * kMs);
        for (PcmStream* stream :
             std::initializer_list<PcmStream*>{&app, &hostMic, &appMic, &hostSpeaker}) {
            stream->stop();
        }
        EXPECT_THAT(findGaps(app.recording(), noise), IsEmpty());
        EXPECT_THAT(findGaps(hostMic.recording(), noise), IsEmpty());
        EXPECT_LT(firstSound(app.recording()), kHeardFrames / 2U);
        EXPECT_LT(firstSound(hostMic.recording()), kHeardFrames / 2U);
        expectFeedback(&monitor, fullSpeed);
    }

  private:
    // 48 frames a packet, as 10.14 or 16.16 bits. A host disregards what makes no sense to it.
    static void expectFeedback(UsbMonitor* monitor, bool fullSpeed) {
        const std::string wanted =
            fullSpeed ? std::string("\x00\x00\x0c", 3) : std::string("\x00\x00\x30\x00", 4);
        int answers = 0;
        for (const UsbTransfer& transfer : monitor->take()) {
            for (const UsbPacket& packet : transfer.packets) {
                if (transfer.endpoint == kFeedbackIn && !packet.data.empty()) {
                    EXPECT_EQ(packet.data, wanted);
                    ++answers;
                }
            }
        }
        EXPECT_GE(answers, 10);
    }
};

TEST_F(Sound, IsExactAtHighSpeed) {
    expectSound(false, 0);
}

TEST_F(Sound, IsExactAtFullSpeed) {
    expectSound(true, 0);
}

TEST_F(Sound, IsExactWithAHostThatIsFast) {
    expectSound(false, 1000000);
}

TEST_F(Sound, IsExactWithAHostThatIsSlow) {
    expectSound(true, -1000000);
}

// The card's PCM in a program's hands, blocking, with a period and a ring of its own.
class Pcm {
  public:
    Pcm(snd_pcm_stream_t direction, snd_pcm_uframes_t period, snd_pcm_uframes_t ring) {
        snd_pcm_hw_params_t* hw;
        snd_pcm_hw_params_alloca(&hw);
        int failed = snd_pcm_open(&pcm, kDriverPcm, direction, 0);
        failed |= snd_pcm_hw_params_any(pcm, hw);
        failed |= snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED);
        failed |= snd_pcm_hw_params_set_period_size(pcm, hw, period, 0);
        failed |= snd_pcm_hw_params_set_buffer_size(pcm, hw, ring);
        failed |= snd_pcm_hw_params(pcm, hw);
        EXPECT_EQ(failed, 0) << period << '/' << ring;
    }
    ~Pcm() { snd_pcm_close(pcm); }
    Pcm(const Pcm&) = delete;
    Pcm& operator=(const Pcm&) = delete;

    // To the last frame.
    void play(const Samples& samples) {
        EXPECT_EQ(snd_pcm_writei(pcm, samples.data(), samples.size()),
                  static_cast<snd_pcm_sframes_t>(samples.size()));
        EXPECT_EQ(snd_pcm_drain(pcm), 0);
    }
    Samples record(size_t frames) {
        Samples samples(frames);
        EXPECT_EQ(snd_pcm_readi(pcm, samples.data(), frames),
                  static_cast<snd_pcm_sframes_t>(frames));
        return samples;
    }

  private:
    snd_pcm_t* pcm = nullptr;
};

// The periods and rings that the daemon asks for are granted; and in a ring in which no whole
// number of packets fits, and to the last frame of a playback, though packets are prepared ahead.
TEST_F(Sound, IsExactInEveryRingAndToTheLastFrame) {
    enumerate();
    PcmRecorder hostMic(kHostPcm);
    ASSERT_TRUE(waitFor([&] { return hostMic.frames() > 480; }));
    const std::pair<snd_pcm_uframes_t, snd_pcm_uframes_t> rings[] = {
        {240, 720}, {240, 2400}, {250, 1000}};
    int64_t from = 0;
    for (const auto& [period, ring] : rings) {
        Pcm(SND_PCM_STREAM_PLAYBACK, period, ring).play(render(noise, from, 4800));
        from += 4800;
        const int64_t end = hostMic.frames() + 960;  // a while of silence
        ASSERT_TRUE(waitFor([&] { return hostMic.frames() > end; }));
    }
    hostMic.stop();
    for (int64_t part = 0; part < from; part += 4800) {
        EXPECT_GE(findWhole(render(noise, part, 4800), hostMic.recording()), 0) << part;
    }
    PcmPlayer hostSpeaker(kHostPcm, noise);
    sleepFor(50 * kMs);
    for (const auto& [period, ring] : rings) {
        const Samples heard = Pcm(SND_PCM_STREAM_CAPTURE, period, ring).record(5000);
        EXPECT_GE(findWhole(heard, render(noise, 0, 96000)), 0) << period;
    }
}

// Nothing of one stream is heard in the next.
TEST_F(Sound, IsSilenceWhenNothingPlays) {
    enumerate();
    {
        PcmPlayer appMic(kDriverPcm, noise);
        PcmRecorder hostMic(kHostPcm);
        ASSERT_TRUE(waitFor([&] { return hostMic.frames() > 4800; }));
        hostMic.stop();
    }
    PcmRecorder hostMic(kHostPcm);
    ASSERT_TRUE(waitFor([&] { return hostMic.frames() > 4800; }));
    hostMic.stop();
    EXPECT_EQ(firstSound(hostMic.recording()), hostMic.recording().size());
}

class Records : public DriverCase {
  protected:
    // The host has the device, and what it did on the way is forgotten.
    void SetUp() override {
        enumerate();
        sleepFor(50 * kMs);
    }
    static std::vector<Record> streamRecords(const std::vector<Record>& records) {
        std::vector<Record> streams;
        for (const Record& record : records) {
            if (record.first == kSpeakerActive || record.first == kMicActive) {
                streams.push_back(record);
            }
        }
        return streams;
    }
    void setAlternate(UsbDevice* device, uint16_t interface, uint16_t setting) {
        std::string none;
        ASSERT_EQ(device->control(0x01, 11, setting, interface, &none), 0);
    }
};

TEST_F(Records, TellOfNoStreamWhileAHostEnumerates) {
    const std::vector<Record> records = control->records();
    EXPECT_EQ(records.front(), Record(0, 0));
    EXPECT_THAT(streamRecords(records), IsEmpty());
    // It did try them out.
    EXPECT_THAT(wire.uframesOf("ep1out enable"), testing::SizeIs(testing::Ge(1)));
    pull();
    plug();
    sleepFor(50 * kMs);
    EXPECT_THAT(streamRecords(control->records()), IsEmpty());
}

TEST_F(Records, TellOfAStreamThatHasStoodForAWhileAndOfItsEndAtOnce) {
    takeFromHost();
    UsbDevice device;
    control->records();
    const struct {
        uint16_t interface;
        uint32_t type;
    } rows[] = {{1, kSpeakerActive}, {2, kMicActive}};
    for (const auto& row : rows) {
        setAlternate(&device, row.interface, 1);
        sleepFor(9 * kMs);
        setAlternate(&device, row.interface, 0);
        sleepFor(20 * kMs);
        EXPECT_THAT(control->records(), IsEmpty()) << row.type;
        setAlternate(&device, row.interface, 1);
        const Ns on = now();
        ASSERT_TRUE(waitFor([&] { return !control->records().empty(); }));
        EXPECT_GE(now() - on, 9 * kMs);
        EXPECT_LE(now() - on, 12 * kMs);
        setAlternate(&device, row.interface, 0);
        EXPECT_THAT(control->records(), ElementsAre(Record(row.type, 0)));
    }
}

TEST_F(Records, TakeTheTimeThatTheAttributeSays) {
    gadget.reset();
    enumerate({{"settle_ms", "0"}});
    EXPECT_THAT(streamRecords(control->records()), testing::SizeIs(4));
    gadget.reset();
    enumerate({{"settle_ms", "100"}});
    takeFromHost();
    UsbDevice device;
    control->records();
    setAlternate(&device, 1, 1);
    sleepFor(95 * kMs);
    EXPECT_THAT(control->records(), IsEmpty());
    sleepFor(10 * kMs);
    EXPECT_THAT(control->records(), ElementsAre(Record(kSpeakerActive, 1)));
}

TEST_F(Records, TellOfTheStreamsEndWhenTheHostGoesAway) {
    PcmRecorder hostMic(kHostPcm);
    PcmPlayer hostSpeaker(kHostPcm, noise);
    sleepFor(50 * kMs);
    control->records();
    pull();
    EXPECT_THAT(control->records(), ElementsAre(Record(kSpeakerActive, 0), Record(kMicActive, 0)));
}

TEST_F(Records, TellOfTheStreamsEndOnASilentBusAndOfItsReturn) {
    PcmRecorder hostMic(kHostPcm);
    PcmPlayer hostSpeaker(kHostPcm, noise);
    sleepFor(50 * kMs);
    control->records();
    wire.suspend();
    sleepFor(50 * kMs);
    EXPECT_THAT(control->records(), ElementsAre(Record(kSpeakerActive, 0), Record(kMicActive, 0)));
    wire.resume();
    sleepFor(50 * kMs);
    EXPECT_THAT(control->records(),
                testing::UnorderedElementsAre(Record(kSpeakerActive, 1), Record(kMicActive, 1)));
}

TEST_F(Records, GiveThePresentStateOnRequest) {
    PcmPlayer hostSpeaker(kHostPcm, noise);
    sleepFor(50 * kMs);
    EXPECT_EQ(control->request(F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, nullptr), 0);
    EXPECT_THAT(control->records(),
                ElementsAre(Record(0, 0), Record(4, 0), Record(5, 0), Record(6, 0), Record(7, 0),
                            Record(kSpeakerActive, 1)));
    hostSpeaker.stop();
    gadget->unbind();
    EXPECT_EQ(control->request(F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, nullptr), 0);
    EXPECT_THAT(control->records(), ElementsAre(Record(1, 0)));
}

// What a program sets reaches the host's own mixer, by the status interrupt.
TEST_F(Records, AreNotNeededForWhatAProgramSets) {
    control->records();
    int16_t volume = -2560;
    uint32_t mute = 1;
    EXPECT_EQ(control->request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_VOLUME, &volume), 0);
    EXPECT_EQ(control->request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_MUTE, &mute), 0);
    sleepFor(20 * kMs);
    FILE* mixer = popen("amixer -c 2 sget PCM", "r");
    std::string text(1000, '\0');
    text.resize(fread(text.data(), 1, text.size(), mixer));
    pclose(mixer);
    EXPECT_THAT(text, testing::HasSubstr("90 [90%] [-10.00dB] [off]"));
    EXPECT_THAT(control->records(), IsEmpty());
    volume = 0;
    mute = 0;
    control->request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_VOLUME, &volume);
    control->request(F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_MUTE, &mute);
}

class Bus : public DriverCase {};

// As kernels do that have the android_usb device themselves; a host resets twice. With one
// processor the telling keeps up with the bus.
TEST_F(Bus, IsShownAsAndroidDoes) {
    make();
    EXPECT_EQ(contents(kStatePath), "DISCONNECTED\n");
    UeventListener uevents;
    const auto states = [&uevents] {
        std::vector<std::string> states;
        for (const std::string& event : uevents.ofSubsystem("android_usb")) {
            states.push_back(event.substr(event.rfind('=') + 1));
        }
        return states;
    };
    bind();
    EXPECT_THAT(states(), ElementsAre("CONNECTED", "DISCONNECTED", "CONNECTED", "CONFIGURED"));
    EXPECT_EQ(contents(kStatePath), "CONFIGURED\n");
    pull();
    EXPECT_THAT(states(), ElementsAre("DISCONNECTED"));
    EXPECT_EQ(contents(kStatePath), "DISCONNECTED\n");
    plug();
    EXPECT_THAT(states(), ElementsAre("CONNECTED", "DISCONNECTED", "CONNECTED", "CONFIGURED"));
    gadget->unbind();
    sleepFor(10 * kMs);
    EXPECT_THAT(states(), ElementsAre("DISCONNECTED"));
}

}  // namespace
}  // namespace uafd
