// SPDX-License-Identifier: Apache-2.0
// The ALSA plugins with the daemon, as users of ALSA's own programs and of its library have them:
// sound in both directions, the mixer, and what host and daemon do meanwhile.
#include <algorithm>
#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include <alsa/asoundlib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/host.h"
#include "board/kit/service.h"
#include "tests/board/app_recording.h"
#include "tests/board/board_case.h"
#include "tests/support/child_process.h"

namespace uafd {
namespace {

using namespace board;
using testing::HasSubstr;
using Words = std::vector<std::string>;

const Words kNative = {"-q", "-t", "raw", "-f", "S16_LE", "-c", "2", "-r", "48000"};
constexpr int kBlock = 480;  // 10 ms
constexpr char kHeardFile[] = "/out/heard.raw";
constexpr char kSaidFile[] = "/out/said.raw";

// One of ALSA's programs.
class Program {
  public:
    Program(const std::string& name, const Words& options, const Words& more) {
        Words words = {"/usr/bin/" + name};
        words.insert(words.end(), options.begin(), options.end());
        words.insert(words.end(), more.begin(), more.end());
        process = std::make_unique<ChildProcess>(words);
    }
    ChildProcess* operator->() const { return process.get(); }
    // Waits for its end, which must be a success.
    void expectDone() const { EXPECT_EQ(process->wait(), 0) << process->errors(); }

  private:
    std::unique_ptr<ChildProcess> process;
};

class AlsaPlugin : public BoardCase {
  protected:
    static void SetUpTestSuite() { installAlsaDevice(); }
    ~AlsaPlugin() override {
        if (pcm != nullptr) {
            snd_pcm_close(pcm);
        }
    }
    static Program record(const std::string& seconds, const std::string& device = "uafd",
                          const Words& format = kNative) {
        return {"arecord", format, {"-D", device, "-d", seconds, kHeardFile}};
    }
    static Program play(const std::string& device = "uafd", const Words& format = kNative) {
        return {"aplay", format, {"-D", device, kSaidFile}};
    }
    void openPcm(snd_pcm_stream_t direction, snd_pcm_uframes_t buffer) {
        ASSERT_EQ(snd_pcm_open(&pcm, "uafd", direction, 0), 0);
        ASSERT_EQ(snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, 2,
                                     kRate, 0, static_cast<unsigned>(buffer * 1000000 / kRate)),
                  0);
    }
    static Samples stereo(const Samples& mono) {
        Samples both;
        for (const int16_t sample : mono) {
            both.push_back(sample);
            both.push_back(static_cast<int16_t>(~sample));
        }
        return both;
    }
    snd_pcm_t* pcm = nullptr;
};

// The host's stream is off, on, off and on again; the recorder is the only app, and starts the
// daemon.
TEST_F(AlsaPlugin, RecordsWhatTheHostPlaysAndSilenceBetween) {
    const HostPlayer player(ramp);
    ASSERT_TRUE(player.fill());
    const Ns begun = now();
    const Program recorder = record("3");
    startWithoutApp();
    sleepUntil(begun + kSecond);
    host.command("speaker on");
    sleepFor(kSecond / 2);
    host.command("speaker off");
    sleepFor(kSecond / 2);
    host.command("speaker on");
    recorder.expectDone();
    const Ns took = now() - begun;
    const Samples heard = heardIn(kHeardFile);
    EXPECT_EQ(heard.size(), static_cast<size_t>(3 * kRate));
    EXPECT_GT(took, 3 * kSecond);
    EXPECT_LT(took, 3 * kSecond + 250 * kMs);
    const std::vector<Stretch> sound = stretchesOf(heard);
    ASSERT_EQ(sound.size(), 2U);
    for (const Stretch& stretch : sound) {
        EXPECT_EQ(breaksIn(heard, stretch.from, stretch.end()), 0);
        EXPECT_GT(stretch.frames, static_cast<size_t>(kRate / 2 - kRate / 10));
    }
    printf("3 s of recording took %ld ms; sound at frames %zu and %zu\n", took / kMs, sound[0].from,
           sound[1].from);
}

TEST_F(AlsaPlugin, PlaysWhatTheHostRecordsAtTheClocksPace) {
    const Program recorder = record("30");
    startWithoutApp();
    host.command("mic on");
    // After silence, in which the daemon brings its buffer into the middle of its range.
    const Samples said = render(noise, 1, kRate / 2);
    Samples file(7 * kRate / 2);
    file.insert(file.end(), said.begin(), said.end());
    writeRaw(kSaidFile, file);
    sleepFor(kSecond / 5);
    const Ns begun = now();
    play().expectDone();
    const Ns took = now() - begun;
    sleepFor(kSecond / 10);
    expectAllOf(said, &host);
    EXPECT_GT(took, 4 * kSecond);
    EXPECT_LT(took, 4 * kSecond + 150 * kMs);
    printf("4 s of sound took %ld ms\n", took / kMs);
}

TEST_F(AlsaPlugin, ConvertsOtherFormatsWithPlug) {
    const Words other = {"-q", "-t", "raw", "-f", "S16_LE", "-c", "1", "-r", "44100"};
    const HostPlayer player(sine(441));
    const Program recorder = record("2", "plug:uafd", other);
    startWithoutApp();
    bothOn();
    Samples tone;
    for (int i = 0; i < 44100; ++i) {
        tone.push_back(sine(441)(static_cast<int64_t>(i) * kRate / 44100));
    }
    writeRaw(kSaidFile, tone, 1);
    host.takeRecording();
    play("plug:uafd", other).expectDone();
    const Samples recorded = host.takeRecording();
    EXPECT_NEAR(upwardCrossings(recorded, 0, recorded.size()), 441, 8);
    recorder.expectDone();
    const Samples heard = readRaw(kHeardFile);
    EXPECT_EQ(heard.size(), 2U * 44100);
    const auto sound = static_cast<int>((heard.size() - firstSound(heard)) / 100);
    EXPECT_GT(sound, 441);
    EXPECT_NEAR(upwardCrossings(heard, 0, heard.size()), sound, 8);
}

// Both programs run on as if nothing had happened. A second one of either kind is refused.
TEST_F(AlsaPlugin, OutlivesTheDaemon) {
    const HostPlayer player(ramp);
    writeRaw(kSaidFile, render(noise, 1, 3 * kRate));
    const Program recorder = record("3");
    startWithoutApp();
    bothOn();
    const Program player2 = play();
    sleepFor(700 * kMs);
    const Program second = {"arecord", kNative, {"-D", "uafd", "-d", "1", "/out/none.raw"}};
    EXPECT_EQ(second->wait(), 1);
    EXPECT_THAT(second->errors(), HasSubstr("an app has this part open already"));
    EXPECT_THAT(second->errors(), HasSubstr("Device or resource busy"));
    const Program third = play();
    EXPECT_EQ(third->wait(), 1);
    EXPECT_THAT(third->errors(), HasSubstr("Device or resource busy"));

    daemon.stop();
    sleepFor(kSecond / 2);
    host.takeRecording();
    daemon.start();
    ASSERT_TRUE(hasThreads(kStreamingThreads));
    recorder.expectDone();
    const Samples heard = heardIn(kHeardFile);
    const std::vector<Stretch> sound = stretchesOf(heard);
    ASSERT_EQ(sound.size(), 2U);
    EXPECT_EQ(breaksIn(heard, sound[0].from, sound[0].end()), 0);
    EXPECT_EQ(breaksIn(heard, sound[1].from, sound[1].end()), 0);
    EXPECT_GT(sound[1].frames, static_cast<size_t>(kRate / 2));
    const Samples recorded = host.takeRecording();
    EXPECT_GT(recorded.size() - firstSound(recorded), static_cast<size_t>(kRate / 2));
    player2.expectDone();
}

TEST_F(AlsaPlugin, PausesResumesAndDrains) {
    const Program recorder = record("30");
    startWithoutApp();
    host.command("mic on");
    sleepFor(kSecond / 5);
    host.takeRecording();
    openPcm(SND_PCM_STREAM_PLAYBACK, kRate);
    const Samples said = render(noise, 1, kRate / 2);
    const Samples both = stereo(said);
    ASSERT_EQ(snd_pcm_writei(pcm, both.data(), said.size()), static_cast<long>(said.size()));
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    sleepFor(205 * kMs);
    ASSERT_EQ(snd_pcm_pause(pcm, 1), 0);
    snd_pcm_sframes_t delay = 0;
    ASSERT_EQ(snd_pcm_delay(pcm, &delay), 0);
    EXPECT_EQ(delay, kRate / 2 - 20 * 480);
    sleepFor(kSecond / 2);
    EXPECT_EQ(snd_pcm_delay(pcm, &delay), 0);
    EXPECT_EQ(delay, kRate / 2 - 20 * 480);
    ASSERT_EQ(snd_pcm_pause(pcm, 0), 0);
    const Ns resumed = now();
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    EXPECT_NEAR(static_cast<double>(now() - resumed) / kMs, 300, 5);
    sleepFor(kSecond / 10);
    const Samples recorded = host.takeRecording();
    // Latency control makes the sound a little longer or shorter after each start.
    const std::vector<Stretch> sound = stretchesOf(recorded);
    ASSERT_EQ(sound.size(), 2U);
    EXPECT_NEAR(static_cast<double>(sound[0].frames), 20 * kBlock, 300);
    EXPECT_NEAR(static_cast<double>(sound[1].frames), 30 * kBlock, 300);
    EXPECT_NEAR(static_cast<double>(sound[1].from - sound[0].from - sound[0].frames), kRate / 2,
                kRate / 50);
}

// The host plays for a part of the minute in which the program does not read: the daemon must not
// wait.
TEST_F(AlsaPlugin, LetsAProgramStopReadingForAMinute) {
    const HostPlayer player(ramp);
    openPcm(SND_PCM_STREAM_CAPTURE, kRate / 2);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    startWithoutApp();
    host.command("speaker on");
    sleepFor(2 * kSecond);
    const size_t mark = daemon.mark();
    host.command("speaker off");
    EXPECT_TRUE(hasThreads(kIdleThreads, 100 * kMs)) << "the stop waits for a reader";
    sleepFor(58 * kSecond);
    std::vector<int16_t> samples(2 * 4800);
    EXPECT_EQ(snd_pcm_readi(pcm, samples.data(), 4800), -EPIPE);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
    ASSERT_EQ(snd_pcm_prepare(pcm), 0);
    host.command("speaker on");
    Samples heard;
    while (heard.size() < static_cast<size_t>(kRate)) {
        ASSERT_EQ(snd_pcm_readi(pcm, samples.data(), 4800), 4800);
        for (size_t i = 0; i < samples.size(); i += 2) {
            heard.push_back(samples[i]);
        }
    }
    const std::vector<Stretch> sound = stretchesOf(heard);
    ASSERT_EQ(sound.size(), 1U);
    EXPECT_EQ(breaksIn(heard, sound[0].from, sound[0].end()), 0);
    EXPECT_GT(sound[0].frames, static_cast<size_t>(kRate / 2));
    EXPECT_EQ(daemon.count("overrun*", mark), 0);
}

// As amixer sets it, and as a mixer that stays open follows the host.
TEST_F(AlsaPlugin, HasTheHostsMixer) {
    const Program recorder = record("30");
    startDaemon();
    const Ns since = now();
    const Words mixer = {"-D", "uafd"};
    const auto set = [&](const std::string& value) {
        Program("amixer", mixer, {"-q", "--", "sset", "Speaker", value}).expectDone();
    };
    set("-10dB");
    set("mute");
    set("unmute");
    EXPECT_EQ(host.countEvents("uac SET_SPK_VOLUME -2560 0", since), 1);
    EXPECT_EQ(host.countEvents("uac SET_SPK_MUTE 1 0", since), 1);
    EXPECT_GE(host.countEvents("uac SET_SPK_MUTE 0 0", since), 1);

    snd_ctl_t* ctl = nullptr;
    ASSERT_EQ(snd_ctl_open(&ctl, "uafd", SND_CTL_NONBLOCK), 0);
    ASSERT_EQ(snd_ctl_subscribe_events(ctl, 1), 0);
    const Program second("amixer", mixer, {"scontrols"});
    EXPECT_EQ(second->wait(), 1);
    EXPECT_THAT(second->errors(), HasSubstr("Device or resource busy"));
    for (const char* command : {"volume speaker -1280", "mute speaker 1", "volume mic -512"}) {
        host.command(command);
    }
    snd_ctl_event_t* event = nullptr;
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_event_alloca(&event);
    snd_ctl_elem_value_alloca(&value);
    for (const auto& [number, now] : std::map<unsigned, long>{{1, 95}, {2, 0}, {3, 98}}) {
        ASSERT_TRUE(waitFor([&] { return snd_ctl_read(ctl, event) == 1; }));
        EXPECT_EQ(snd_ctl_event_elem_get_numid(event), number);
        snd_ctl_elem_value_set_numid(value, number);
        ASSERT_EQ(snd_ctl_elem_read(ctl, value), 0);
        EXPECT_EQ(snd_ctl_elem_value_get_integer(value, 0), now);
    }
    snd_ctl_close(ctl);
}

// Programs that are killed in the middle of a stream leave the daemon whole.
TEST_F(AlsaPlugin, LeavesTheDaemonWholeWhenItsProgramsDie) {
    const HostPlayer player(ramp);
    writeRaw(kSaidFile, render(noise, 1, 3 * kRate));
    {
        const Program recorder = record("30");
        startWithoutApp();
        bothOn();
        const Program speaker = play();
        sleepFor(kSecond / 2);
    }
    EXPECT_TRUE(waitFor([&] { return daemon.count("handler: 13") > 0; }))
        << "the daemon did not write without a reader";
    app = std::make_unique<App>();
    bothOff();
    EXPECT_EQ(findDamage(), "");
}

}  // namespace
}  // namespace uafd
