// SPDX-License-Identifier: Apache-2.0
// The ALSA plugin's playback: what the program writes reaches the daemon in whole blocks, in order
// and to the last frame; xruns, pause, drain and poll are those of a sound card.
#include <fcntl.h>
#include <poll.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include "tests/unit/alsa_pcm.h"

namespace uafd {
namespace {

constexpr size_t kBlock = 480;

class AlsaPlayback : public AlsaPcm {
  protected:
    // Open and set up, beside a daemon that takes every block.
    void openBeside(const PcmSetup& setup = {}, int mode = 0) {
        openReady(SND_PCM_STREAM_PLAYBACK, setup, mode);
        beDaemon();
    }
    // The daemon is there and has room for everything.
    void beDaemon() {
        openDaemon("FifoRx");
        ASSERT_GE(fcntl(daemon.micFd(), F_SETPIPE_SZ, 1 << 20), 1 << 20);
    }
    long write(const std::vector<int16_t>& samples) {
        return snd_pcm_writei(pcm, samples.data(), samples.size() / 2);
    }
    std::vector<int16_t> recorded() {
        std::vector<int16_t> all;
        pollfd source{daemon.micFd(), POLLIN, 0};
        while (poll(&source, 1, 0) > 0 && (source.revents & POLLIN) != 0) {
            const std::vector<int16_t> block = daemon.record();
            all.insert(all.end(), block.begin(), block.end());
        }
        return all;
    }
    // Waits until the daemon has something to read.
    void waitForBlock() const {
        pollfd source{daemon.micFd(), POLLIN, 0};
        ASSERT_EQ(poll(&source, 1, 20000), 1);
    }
    // No block comes in the time of several.
    void expectNothing() const {
        pollfd source{daemon.micFd(), POLLIN, 0};
        EXPECT_EQ(poll(&source, 1, 50), 0);
    }
    void waitForXrun() {
        while (snd_pcm_avail(pcm) >= 0) {
            pollFor(10);
        }
        ASSERT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_XRUN);
    }
};

TEST_F(AlsaPlayback, HandsEverythingToTheDaemonAndPadsTheLastBlock) {
    openBeside();
    std::vector<int16_t> samples = samplesFrom(0, 10 * kBlock + 100);
    ASSERT_EQ(write(samples), 10 * kBlock + 100);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_PREPARED);
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_SETUP);
    samples.resize(2 * 11 * kBlock);
    EXPECT_EQ(recorded(), samples);
}

// More than the ring holds, so that its end is passed, in the middle of a block.
TEST_F(AlsaPlayback, GoesRoundTheRing) {
    openBeside({SND_PCM_FORMAT_S16_LE, 2, 48000, 23900, 478});
    const std::vector<int16_t> samples = samplesFrom(0, 25000);
    ASSERT_EQ(snd_pcm_writei(pcm, samples.data(), 23400), 23400);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    while (snd_pcm_avail(pcm) < 1600) {
        pollLong();
    }
    ASSERT_EQ(snd_pcm_pause(pcm, 1), 0);
    ASSERT_EQ(snd_pcm_writei(pcm, samples.data() + 2 * 23400, 1600), 1600);
    ASSERT_EQ(snd_pcm_pause(pcm, 0), 0);
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    std::vector<int16_t> heard = recorded();
    ASSERT_EQ(heard.size(), 2 * 53 * kBlock);
    heard.resize(samples.size());
    EXPECT_EQ(heard, samples);
}

TEST_F(AlsaPlayback, RunsEmptyAndRecovers) {
    openBeside();
    ASSERT_EQ(write(samplesFrom(0, 3 * kBlock + 1)), 3 * kBlock + 1);
    EXPECT_EQ(pollFor(0), POLLOUT) << "there is room from the beginning";
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    waitForXrun();
    EXPECT_EQ(pollFor(0), POLLOUT | POLLERR);
    EXPECT_EQ(write(samplesFrom(0, kBlock)), -EPIPE);
    snd_pcm_sframes_t delay = 0;
    EXPECT_EQ(snd_pcm_delay(pcm, &delay), -EPIPE);
    EXPECT_EQ(recorded().size(), 2 * 3 * kBlock) << "a part of a block is not handed over";

    ASSERT_EQ(snd_pcm_prepare(pcm), 0);
    const std::vector<int16_t> later = samplesFrom(7000, 2 * kBlock);
    ASSERT_EQ(write(later), 2 * kBlock);
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    EXPECT_EQ(recorded(), later);
}

// A waiting program learns of an xrun at once.
TEST_F(AlsaPlayback, EndsAWaitWithTheXrun) {
    openBeside();
    setThresholds(96000);
    ASSERT_EQ(write(samplesFrom(0, kBlock)), kBlock);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    int waited = 1;
    while (waited == 1) {
        waited = snd_pcm_wait(pcm, -1);
    }
    EXPECT_EQ(waited, -EPIPE);
}

TEST_F(AlsaPlayback, GoesOnInSilenceIfToldNotToStop) {
    openBeside();
    setThresholds(480, false);
    ASSERT_EQ(write(samplesFrom(0, 100)), 100);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    std::vector<int16_t> heard;
    while (heard.size() < 2 * 5 * kBlock) {
        waitForBlock();
        const std::vector<int16_t> more = recorded();
        heard.insert(heard.end(), more.begin(), more.end());
    }
    std::vector<int16_t> expected = samplesFrom(0, 100);
    expected.resize(heard.size());
    EXPECT_EQ(heard, expected);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_RUNNING);
}

TEST_F(AlsaPlayback, PausesAndResumesWithoutLoss) {
    openBeside();
    const std::vector<int16_t> samples = samplesFrom(0, 40 * kBlock);
    ASSERT_EQ(write(samples), 40 * kBlock);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    waitForBlock();
    ASSERT_EQ(snd_pcm_pause(pcm, 1), 0);
    EXPECT_EQ(snd_pcm_state(pcm), SND_PCM_STATE_PAUSED);
    std::vector<int16_t> heard = recorded();
    EXPECT_LT(heard.size(), samples.size());
    expectNothing();
    snd_pcm_sframes_t delay = 0;
    ASSERT_EQ(snd_pcm_delay(pcm, &delay), 0);
    EXPECT_EQ(static_cast<size_t>(delay), 40 * kBlock - heard.size() / 2);

    ASSERT_EQ(snd_pcm_pause(pcm, 0), 0);
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    const std::vector<int16_t> rest = recorded();
    heard.insert(heard.end(), rest.begin(), rest.end());
    EXPECT_EQ(heard, samples);
}

TEST_F(AlsaPlayback, DrainsWithoutBlocking) {
    openBeside({}, SND_PCM_NONBLOCK);
    const std::vector<int16_t> samples = samplesFrom(0, 2 * kBlock + 1);
    ASSERT_EQ(write(samples), 2 * kBlock + 1);
    int drained = snd_pcm_drain(pcm);
    EXPECT_EQ(drained, -EAGAIN);
    while ((drained = snd_pcm_drain(pcm)) == -EAGAIN) {
        EXPECT_EQ(pollLong(), POLLOUT);
    }
    EXPECT_EQ(drained, 0);
    EXPECT_EQ(recorded().size(), 2 * 3 * kBlock);
}

TEST_F(AlsaPlayback, DropsWhatIsLeftWhenItIsStopped) {
    openBeside();
    ASSERT_EQ(write(samplesFrom(0, 40 * kBlock)), 40 * kBlock);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    waitForBlock();
    ASSERT_EQ(snd_pcm_drop(pcm), 0);
    EXPECT_LT(recorded().size(), 2 * 40 * kBlock);
    expectNothing();
    ASSERT_EQ(snd_pcm_prepare(pcm), 0);
    const std::vector<int16_t> later = samplesFrom(500, kBlock);
    ASSERT_EQ(write(later), kBlock);
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    EXPECT_EQ(recorded(), later);
}

TEST_F(AlsaPlayback, IsReadyWhenThereIsRoomForAsMuchAsAsked) {
    openBeside({SND_PCM_FORMAT_S16_LE, 2, 48000, 4800, 480});
    setThresholds(960, false);
    EXPECT_EQ(pollFor(0), POLLOUT);
    ASSERT_EQ(write(samplesFrom(0, 3840)), 3840);
    EXPECT_EQ(pollFor(0), POLLOUT);
    ASSERT_EQ(write(samplesFrom(0, 1)), 1);
    EXPECT_EQ(pollFor(0), 0);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    EXPECT_EQ(pollLong(), POLLOUT);
    EXPECT_GE(snd_pcm_avail(pcm), 960);
}

TEST_F(AlsaPlayback, CountsWhatTheDaemonDoesNotHaveYet) {
    openBeside();
    ASSERT_EQ(write(samplesFrom(0, 9700)), 9700);
    snd_pcm_sframes_t delay = 0;
    ASSERT_EQ(snd_pcm_delay(pcm, &delay), 0);
    EXPECT_EQ(delay, 9700);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    waitForBlock();
    ASSERT_EQ(snd_pcm_pause(pcm, 1), 0);
    ASSERT_EQ(snd_pcm_delay(pcm, &delay), 0);
    EXPECT_EQ(delay, 9700) << "what is in the FIFO counts";
    const size_t taken = recorded().size() / 2;
    EXPECT_GE(taken, kBlock);
    ASSERT_EQ(snd_pcm_delay(pcm, &delay), 0);
    EXPECT_EQ(static_cast<size_t>(delay), 9700 - taken);
}

TEST_F(AlsaPlayback, LosesWhatNobodyTakes) {
    openReady(SND_PCM_STREAM_PLAYBACK);
    ASSERT_EQ(write(samplesFrom(0, 5 * kBlock)), 5 * kBlock);
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    ASSERT_EQ(snd_pcm_prepare(pcm), 0);
    beDaemon();
    const std::vector<int16_t> later = samplesFrom(500, kBlock);
    ASSERT_EQ(write(later), kBlock);
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    EXPECT_EQ(recorded(), later);
}

TEST_F(AlsaPlayback, LetsADaemonStartThatWaitsForTheSpeaker) {
    openReady(SND_PCM_STREAM_PLAYBACK);
    setThresholds(480, false);
    ASSERT_EQ(write(samplesFrom(0, kBlock)), kBlock);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    struct stat found {};
    while (stat(daemon.path("FifoRx").c_str(), &found) != 0) {
        pollFor(10);
    }
    EXPECT_TRUE(daemon.openFifos());
}

TEST_F(AlsaPlayback, ClosesInEveryState) {
    for (const int state : {0, 1, 2, 3, 4, 5}) {
        openReady(SND_PCM_STREAM_PLAYBACK, {}, SND_PCM_NONBLOCK);
        if (state > 0) {
            ASSERT_EQ(write(samplesFrom(0, 40 * kBlock)), 40 * kBlock);
        }
        if (state > 1) {
            ASSERT_EQ(snd_pcm_start(pcm), 0);
        }
        if (state == 3) {
            ASSERT_EQ(snd_pcm_pause(pcm, 1), 0);
        } else if (state == 4) {
            ASSERT_EQ(snd_pcm_drain(pcm), -EAGAIN);
        } else if (state == 5) {
            ASSERT_EQ(snd_pcm_hw_free(pcm), 0);
        }
        close();
    }
}

// The child has the parent's handle and descriptors, and none of its threads.
TEST_F(AlsaPlayback, IsNotHarmedByAChildThatCloses) {
    openBeside();
    const std::vector<int16_t> samples = samplesFrom(0, 20 * kBlock);
    ASSERT_EQ(write(samples), 20 * kBlock);
    ASSERT_EQ(snd_pcm_start(pcm), 0);
    const pid_t child = fork();
    if (child == 0) {
        const long written = snd_pcm_writei(pcm, samples.data(), 1);
        snd_pcm_close(pcm);
        _exit(written < 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    EXPECT_EQ(recorded(), samples);
}

TEST_F(AlsaPlayback, ConvertsOtherFormatsWithPlug) {
    ASSERT_EQ(open(SND_PCM_STREAM_PLAYBACK), 0);
    EXPECT_EQ(setUp({SND_PCM_FORMAT_S16_LE, 1}), -EINVAL);
    EXPECT_EQ(setUp({SND_PCM_FORMAT_S32_LE, 2}), -EINVAL);
    EXPECT_EQ(setUp({SND_PCM_FORMAT_S16_LE, 2, 44100}), -EINVAL);
    close();
    ASSERT_EQ(open("converted", SND_PCM_STREAM_PLAYBACK), 0) << config.said();
    ASSERT_EQ(setUp({SND_PCM_FORMAT_S32_LE, 1, 48000, 48000, 480}), 0) << config.said();
    setThresholds(480);
    beDaemon();
    std::vector<int32_t> mono(2 * kBlock);
    for (size_t i = 0; i < mono.size(); ++i) {
        mono[i] = static_cast<int32_t>((i + 1) << 16);
    }
    ASSERT_EQ(snd_pcm_writei(pcm, mono.data(), mono.size()), static_cast<long>(mono.size()));
    ASSERT_EQ(snd_pcm_drain(pcm), 0);
    const std::vector<int16_t> heard = recorded();
    ASSERT_EQ(heard.size(), 2 * mono.size());
    for (size_t i = 0; i < heard.size(); ++i) {
        ASSERT_EQ(heard[i], static_cast<int16_t>(i / 2 + 1)) << i;
    }
}

TEST_F(AlsaPlayback, LimitsPeriodAndBuffer) {
    ASSERT_EQ(open(SND_PCM_STREAM_PLAYBACK), 0);
    EXPECT_EQ(setUp({SND_PCM_FORMAT_S16_LE, 2, 48000, 480, 240}), -EINVAL);
    EXPECT_EQ(setUp({SND_PCM_FORMAT_S16_LE, 2, 48000, 960, 120}), -EINVAL);
    EXPECT_EQ(setUp({SND_PCM_FORMAT_S16_LE, 2, 48000, 96001, 480}), -EINVAL);
    EXPECT_EQ(setUp({SND_PCM_FORMAT_S16_LE, 2, 48000, 960, 480}), 0);
}

}  // namespace
}  // namespace uafd
