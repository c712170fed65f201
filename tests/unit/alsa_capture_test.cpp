// SPDX-License-Identifier: Apache-2.0
// The ALSA plugin's capture: the program reads what the host plays, and silence while nothing
// comes, whether the host is off, the daemon restarts, or there is none.
#include <algorithm>

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "tests/unit/alsa_pcm.h"

namespace uafd {
namespace {

class AlsaCapture : public AlsaPcm {
  protected:
    void openRunning(const PcmSetup& setup = {}) {
        openReady(SND_PCM_STREAM_CAPTURE, setup);
        openDaemon("FifoTx");
        ASSERT_EQ(snd_pcm_start(pcm), 0);
    }
    std::vector<int16_t> read(size_t frames) {
        std::vector<int16_t> samples(2 * frames);
        const long got = snd_pcm_readi(pcm, samples.data(), frames);
        EXPECT_GE(got, 0) << snd_strerror(static_cast<int>(got));
        samples.resize(2 * static_cast<size_t>(std::max(got, 0L)));
        return samples;
    }
    // Reads until this much sound has come, without the silence before it.
    std::vector<int16_t> readSound(size_t frames) {
        std::vector<int16_t> sound;
        while (sound.size() < 2 * frames && !HasFailure()) {
            for (const int16_t sample : read(240)) {
                if (sample != 0 || !sound.empty()) {
                    sound.push_back(sample);
                }
            }
        }
        sound.resize(std::min(sound.size(), 2 * frames));
        return sound;
    }
    // Waits until the FIFO has been read, by the stream's thread.
    void waitUntilHeard() const {
        int bytes = 1;
        while (bytes != 0) {
            ASSERT_EQ(ioctl(daemon.speakerFd(), FIONREAD, &bytes), 0);
        }
    }
    // Reads a period, and appends it without silence.
    void hear(std::vector<int16_t>* sound) {
        for (const int16_t sample : read(240)) {
            if (sample != 0) {
                sound->push_back(sample);
            }
        }
    }
};

TEST_F(AlsaCapture, ReadsWhatTheHostPlays) {
    openRunning();
    const std::vector<int16_t> samples = samplesFrom(0, 1000);
    daemon.play(samples);
    EXPECT_EQ(readSound(1000), samples);
}

// The first frames put the later ones across the ring's end.
TEST_F(AlsaCapture, GoesRoundTheRing) {
    openRunning({SND_PCM_FORMAT_S16_LE, 2, 48000, 24000, 480});
    setThresholds(1);
    std::vector<int16_t> played = samplesFrom(0, 100);
    std::vector<int16_t> heard;
    daemon.play(played);
    for (int i = 0; i < 110; ++i) {
        const std::vector<int16_t> more = samplesFrom(200 * i, 240);
        daemon.play(more);
        played.insert(played.end(), more.begin(), more.end());
        hear(&heard);
    }
    while (heard.size() < played.size() && !HasFailure()) {
        hear(&heard);
    }
    EXPECT_EQ(heard, played);
}

TEST_F(AlsaCapture, IsSilentWhileNothingComes) {
    openRunning();
    EXPECT_EQ(read(4800), std::vector<int16_t>(9600));
    daemon.play(samplesFrom(0, 240));
    EXPECT_EQ(readSound(240), samplesFrom(0, 240));
    EXPECT_EQ(read(4800), std::vector<int16_t>(9600));
    daemon.play(samplesFrom(3000, 240));
    EXPECT_EQ(readSound(240), samplesFrom(3000, 240)) << "sound again";
}

TEST_F(AlsaCapture, ComesBackWithTheDaemon) {
    openRunning();
    daemon.play(samplesFrom(0, 240));
    EXPECT_EQ(readSound(240), samplesFrom(0, 240));
    daemon.end();
    EXPECT_EQ(read(4800), std::vector<int16_t>(9600));
    ASSERT_TRUE(daemon.openFifos());
    daemon.play(samplesFrom(3000, 240));
    EXPECT_EQ(readSound(240), samplesFrom(3000, 240));
}

TEST_F(AlsaCapture, IsSilentWithoutADaemonAndMakesTheFifo) {
    openReady(SND_PCM_STREAM_CAPTURE);
    struct stat found {};
    ASSERT_EQ(stat(daemon.path("FifoRx").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode, static_cast<mode_t>(S_IFIFO | 0660));
    EXPECT_EQ(snd_pcm_start(pcm), 0);
    EXPECT_EQ(read(4800), std::vector<int16_t>(9600));
}

TEST_F(AlsaCapture, LetsADaemonStartThatWaitsForTheMicrophone) {
    openReady(SND_PCM_STREAM_CAPTURE);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    struct stat found {};
    while (stat(daemon.path("FifoTx").c_str(), &found) != 0) {
        read(480);
    }
    EXPECT_TRUE(daemon.openFifos());
}

// A daemon whose sound is not read could not stop its stream.
TEST_F(AlsaCapture, DiscardsWhatComesWhileItDoesNotRun) {
    openReady(SND_PCM_STREAM_CAPTURE);
    openDaemon("FifoTx");
    for (int i = 0; i < 10; ++i) {
        daemon.play(samplesFrom(0, 960));
    }
    waitUntilHeard();
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    daemon.play(samplesFrom(3000, 240));
    EXPECT_EQ(readSound(240), samplesFrom(3000, 240));
    ASSERT_EQ(snd_pcm_pause(pcm, 1), 0);
    daemon.play(samplesFrom(0, 960));
    waitUntilHeard();
    // The wait sees the FIFO empty, and the thread has the lock until its sound is discarded.
    ASSERT_EQ(snd_pcm_pause(pcm, 0), 0);
    daemon.play(samplesFrom(6000, 240));
    EXPECT_EQ(readSound(240), samplesFrom(6000, 240));
}

TEST_F(AlsaCapture, RunsOverAndRecovers) {
    openRunning({SND_PCM_FORMAT_S16_LE, 2, 48000, 960, 480});
    daemon.play(samplesFrom(0, 1000));
    while (snd_pcm_avail(pcm) >= 0) {
        pollFor(10);
    }
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
    EXPECT_EQ(pollFor(0), POLLIN | POLLERR);
    int16_t frame[2];
    EXPECT_EQ(snd_pcm_readi(pcm, frame, 1), -EPIPE);
    daemon.play(samplesFrom(0, 960));
    waitUntilHeard();
    close();

    openReady(SND_PCM_STREAM_CAPTURE, {SND_PCM_FORMAT_S16_LE, 2, 48000, 96000, 480});
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    setThresholds(480);
    EXPECT_EQ(read(960).size(), 1920U);
    EXPECT_EQ(snd_pcm_drop(pcm), 0);
    ASSERT_EQ(snd_pcm_prepare(pcm), 0);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    daemon.play(samplesFrom(3000, 240));
    EXPECT_EQ(readSound(240), samplesFrom(3000, 240));
}

TEST_F(AlsaCapture, EndsAWaitWithTheXrunAndIsEmptyAfterwards) {
    openRunning({SND_PCM_FORMAT_S16_LE, 2, 48000, 960, 480});
    setThresholds(961);
    EXPECT_EQ(snd_pcm_wait(pcm, -1), -EPIPE);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
    ASSERT_EQ(snd_pcm_prepare(pcm), 0);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_PREPARED);
    EXPECT_EQ(snd_pcm_avail(pcm), 0);
    EXPECT_EQ(pollFor(0), 0);
}

TEST_F(AlsaCapture, IsReadyWhenThereIsAsMuchAsAsked) {
    openRunning();
    setThresholds(1000);
    EXPECT_EQ(pollLong(), POLLIN);
    EXPECT_GE(snd_pcm_avail_update(pcm), 1000);
    const snd_pcm_sframes_t available = snd_pcm_avail_update(pcm);
    snd_pcm_sframes_t delay = 0;
    ASSERT_EQ(snd_pcm_delay(pcm, &delay), 0);
    EXPECT_GE(delay, available);
}

TEST_F(AlsaCapture, IsForOneProgramPerDirection) {
    openReady(SND_PCM_STREAM_CAPTURE);
    snd_pcm_t* second = nullptr;
    EXPECT_EQ(
        snd_pcm_open_lconf(&second, device().c_str(), SND_PCM_STREAM_CAPTURE, 0, config.get()),
        -EBUSY);
    EXPECT_EQ(config.said(), "uafd: " + folder.path() + ": an app has this part open already\n");
    ASSERT_EQ(
        snd_pcm_open_lconf(&second, device().c_str(), SND_PCM_STREAM_PLAYBACK, 0, config.get()), 0);
    EXPECT_EQ(snd_pcm_close(second), 0);
    close();
    EXPECT_EQ(open(SND_PCM_STREAM_CAPTURE), 0) << "it is free again";
}

TEST_F(AlsaCapture, ClosesInEveryState) {
    ASSERT_EQ(open(SND_PCM_STREAM_CAPTURE), 0);
    close();
    for (const int state : {0, 1, 2, 3}) {
        openReady(SND_PCM_STREAM_CAPTURE, {SND_PCM_FORMAT_S16_LE, 2, 48000, 960, 480});
        if (state > 0) {
            ASSERT_EQ(snd_pcm_start(pcm), 0);
        }
        if (state == 2) {
            ASSERT_EQ(snd_pcm_pause(pcm, 1), 0);
        } else if (state == 3) {
            ASSERT_EQ(snd_pcm_drain(pcm), 0);
            EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_SETUP);
        }
        close();
    }
}

// In the child the stream is dead, and closing it there does not give the FIFO to others.
TEST_F(AlsaCapture, GoesOnInAParentWhoseChildCloses) {
    openRunning();
    const pid_t child = fork();
    if (child == 0) {
        const snd_pcm_sframes_t available = snd_pcm_avail_update(pcm);
        snd_pcm_close(pcm);
        _exit(available < 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    snd_pcm_t* second = nullptr;
    EXPECT_EQ(
        snd_pcm_open_lconf(&second, device().c_str(), SND_PCM_STREAM_CAPTURE, 0, config.get()),
        -EBUSY);
    daemon.play(samplesFrom(3000, 240));
    EXPECT_EQ(readSound(240), samplesFrom(3000, 240));
}

// Programs such as converters read through a memory map.
TEST_F(AlsaCapture, ConvertsToOtherFormatsWithPlug) {
    ASSERT_EQ(open("converted", SND_PCM_STREAM_CAPTURE), 0) << config.said();
    ASSERT_EQ(setUp({SND_PCM_FORMAT_S16_LE, 1, 48000, 48000, 480}), 0) << config.said();
    openDaemon("FifoTx");
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    daemon.play(std::vector<int16_t>(480, 1234));
    std::vector<int16_t> mono;
    while (std::count(mono.begin(), mono.end(), 1234) < 240 && !HasFailure()) {
        int16_t samples[480];
        const long got = snd_pcm_readi(pcm, samples, 480);
        ASSERT_GE(got, 0);
        mono.insert(mono.end(), samples, samples + got);
    }
}

TEST_F(AlsaCapture, RefusesUnknownSettings) {
    const AlsaConfig wrong(
        "pcm.wrong { type uafd folder \"/tmp\" }\n"
        "pcm.number { type uafd directory 5 }\n"
        "pcm.group { type uafd group nobody-has-this }\n");
    for (const char* name : {"wrong", "number", "group"}) {
        snd_pcm_t* none = nullptr;
        EXPECT_EQ(snd_pcm_open_lconf(&none, name, SND_PCM_STREAM_CAPTURE, 0, wrong.get()), -EINVAL)
            << name;
    }
    EXPECT_EQ(wrong.said(),
              "uafd: folder: unknown field\nuafd: directory: wrong type\n"
              "uafd: /tmp: an option is not understood\n");
}

}  // namespace
}  // namespace uafd
