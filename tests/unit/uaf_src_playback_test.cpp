// SPDX-License-Identifier: Apache-2.0
// The source channel's worker: from the frame buffer into the PCM.
#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "channel/uaf_src.h"
#include "tests/unit/source_bench.h"

namespace uafd {
namespace {

using fake_log::kAlsaLog;
using fake_log::kChannelLog;
using fake_log::kSourceLog;
using namespace source_bench;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::Pair;
using ::testing::SizeIs;
using Samples = std::vector<int16_t>;

// The worker makes these passes after the one in which the stop is requested.
constexpr int kLastPasses = 3;

class UafSrcPlaybackTest : public source_bench::Test {
  protected:
    void SetUp() override {
        source_bench::Test::SetUp();
        fake_ssrs::hooks().SSRS_Read = [this](SSRS_Ctx*, int16_t* out) {
            journal.push_back("read");
            std::fill_n(out, kFrameSamples, ++framesRead);
            return readResult;
        };
        start();
        fake_alsa::setState(pcm(), SND_PCM_STATE_RUNNING);
        fake_alsa::hooks().wait = [this](snd_pcm_t*, int) { return waitResult(); };
        fake_alsa::hooks().writei = [this](snd_pcm_t*, const int16_t*, snd_pcm_uframes_t frames) {
            journal.push_back("writei");
            return writeResult(static_cast<int>(frames));
        };
    }

    snd_pcm_t* pcm() const { return source->pcmHandle; }

    // The worker's `pass`-th wait will request the channel's stop; three more passes follow.
    void switchOffInWait(int pass) {
        fake_alsa::hooks().before = [this, pass, waits = 0](const std::string& call) mutable {
            if (call.compare(0, 12, "snd_pcm_wait") == 0 && ++waits == pass) {
                source->intfUpdate(false);
            }
        };
    }
    // Runs `passes` passes and the three that end the channel, each with a ready PCM.
    void runPasses(int passes) {
        switchOffInWait(passes);
        runWorker();
    }

    // The waits return these results, one after the other, and then 1.
    void waitResults(std::vector<int> results) {
        waitResult = [results, next = size_t{0}]() mutable {
            return next < results.size() ? results[next++] : 1;
        };
    }

    // The writes return these results, one after the other, and then the number of frames they got.
    void writeResults(std::vector<int> results) {
        writeResult = [results, next = size_t{0}](int frames) mutable {
            return next < results.size() ? results[next++] : frames;
        };
    }

    // What was written after the silence of the start.
    Samples played(int index = 0) const {
        const Samples all = fake_alsa::written(fake_alsa::pcm(index));
        return Samples(all.begin() + kFrameSamples, all.end());
    }

    int16_t framesRead = 0;
    int32_t readResult = 0;
    std::function<int()> waitResult = [] { return 1; };
    std::function<int(int)> writeResult = [](int frames) { return frames; };
};

// ---- The loop ----------------------------------------------------------------------------------

TEST_F(UafSrcPlaybackTest, EachPassPlaysOneFrame) {
    runPasses(2);
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_wait"),
                AllOf(SizeIs(2 + kLastPasses), Each("snd_pcm_wait(pcm0, 10)")));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_writei"),
                AllOf(SizeIs(2 + kLastPasses), Each("snd_pcm_writei(pcm0, 240)")));
    const Samples samples = played();
    ASSERT_THAT(samples, SizeIs(5 * kFrameSamples));
    for (size_t i = 0; i < samples.size(); ++i) {
        ASSERT_EQ(static_cast<int16_t>(i / kFrameSamples + 1), samples[i]);
    }
    EXPECT_THAT(ownLines(), ElementsAre(kSourceLog.debug("loopcnt 0, pcmWrite 240\n"),
                                        kSourceLog.debug("stopping buffer thread\n"),
                                        kSourceLog.debug("stop, close hw:1\n"),
                                        kSourceLog.debug("exit, loopcnt=5, pcmWrite 1200\n")));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Pair(2U, 0U)));
    EXPECT_EQ(UAFCH_STOPPED, source->state);
}

TEST_F(UafSrcPlaybackTest, TheLockIsHeldAroundTheFrameBufferOnly) {
    fake_alsa::hooks().wait = [this](snd_pcm_t*, int) {
        journal.push_back("wait");
        return 1;
    };
    runPasses(1);
    journal.erase(journal.begin(), std::find(journal.begin(), journal.end(), "wait"));
    journal.resize(5);
    EXPECT_THAT(journal, ElementsAre("wait", "lock ssrs", "read", "unlock ssrs", "writei"));
}

TEST_F(UafSrcPlaybackTest, ALoopThatFindsItsStopDueMakesNoPass) {
    source->state = UAFCH_STOPPING;
    source->stopDelayCnt = 3;
    runWorker();
    EXPECT_THAT(fake_alsa::calls(), ElementsAre("snd_pcm_drop(pcm0)", "snd_pcm_close(pcm0)"));
    EXPECT_EQ(kSourceLog.debug("exit, loopcnt=0, pcmWrite 0\n"), fake_log::lines().back());
}

TEST_F(UafSrcPlaybackTest, ProgressIsReportedEvery6000Passes) {
    runPasses(6001 - kLastPasses);
    EXPECT_THAT(ownLines(),
                ElementsAre(kSourceLog.debug("loopcnt 0, pcmWrite 240\n"),
                            kSourceLog.debug("loopcnt 6000, pcmWrite 1440240\n"),
                            kSourceLog.debug("stopping buffer thread\n"),
                            kSourceLog.debug("stop, close hw:1\n"),
                            kSourceLog.debug("exit, loopcnt=6001, pcmWrite 1440240\n")));
}

// The daemon runs for months, longer than the counter lasts.
TEST_F(UafSrcPlaybackTest, TheFrameTotalWraps) {
    writeResults({0x60000000, 0x60000000, 0, 0, 0});
    runPasses(2);
    EXPECT_EQ(kSourceLog.debug("exit, loopcnt=5, pcmWrite -1073741824\n"),
              fake_log::lines().back());
}

// ---- The kick start ----------------------------------------------------------------------------

// After a recovery the PCM does not run until it is written to.
TEST_F(UafSrcPlaybackTest, APcmThatIsNotRunningIsKickedWithSilence) {
    for (const snd_pcm_state_t state : {SND_PCM_STATE_SETUP, SND_PCM_STATE_PREPARED}) {
        forget();
        fake_alsa::hooks().state = [state, asked = 0](snd_pcm_t*) mutable {
            return ++asked == 1 ? state : SND_PCM_STATE_RUNNING;
        };
        source->availChkCnt = 9;
        const int index = fake_alsa::pcmsOpened() - 1;
        const auto frame = static_cast<int16_t>(framesRead + 1);
        runPasses(1);
        EXPECT_EQ("need to kick start\n", ownLines().front().text);
        EXPECT_EQ(fake_log::kDebug, ownLines().front().priority);
        EXPECT_THAT(ownLines(), Contains(kSourceLog.debug("need to kick start\n")).Times(1));
        EXPECT_EQ(0, source->availChkCnt);
        Samples samples = played(index);
        ASSERT_THAT(samples, SizeIs(5 * kFrameSamples));
        EXPECT_THAT(Samples(samples.begin(), samples.begin() + kFrameSamples), Each(0));
        EXPECT_EQ(frame, samples[kFrameSamples]);
        start();
    }
}

TEST_F(UafSrcPlaybackTest, APcmInAnyOtherStateIsNotKicked) {
    fake_alsa::setState(pcm(), SND_PCM_STATE_XRUN);
    runPasses(1);
    EXPECT_THAT(ownLines(), Not(Contains(kSourceLog.debug("need to kick start\n"))));
}

TEST_F(UafSrcPlaybackTest, AKickThatCannotBeWrittenStopsTheChannel) {
    fake_alsa::setState(pcm(), SND_PCM_STATE_SETUP);
    writeResult = [](int) { return -ENODEV; };
    runWorker();
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_wait"), IsEmpty());
    EXPECT_EQ(4, fake_alsa::count("snd_pcm_writei"));
    EXPECT_THAT(
        ownLines(),
        AllOf(Contains(kSourceLog.error("stopping, unexpected write error(No such device)\n"))
                  .Times(4),
              Contains(kSourceLog.debug("exit, loopcnt=0, pcmWrite 0\n"))));
}

TEST_F(UafSrcPlaybackTest, AKickThatEndsInAFailedRecoveryGoesOnToTheWait) {
    fake_alsa::setState(pcm(), SND_PCM_STATE_SETUP);
    writeResults({-EPIPE});
    fake_alsa::answerAt("snd_pcm_prepare", 1, -ENODEV);
    runPasses(1);
    EXPECT_THAT(ownLines(),
                Contains(kSourceLog.error("ALSA xrun recovery failed (No such device)\n")));
    EXPECT_EQ(1 + kLastPasses, fake_alsa::count("snd_pcm_wait"));
}

// ---- The wait ----------------------------------------------------------------------------------

TEST_F(UafSrcPlaybackTest, StallsAreCountedUntilAWriteEndsThem) {
    waitResults({0, 0, 0});
    std::vector<int> stalls;
    fake_alsa::hooks().state = [&](snd_pcm_t*) {
        stalls.push_back(source->pcmStallCnt);
        return SND_PCM_STATE_RUNNING;
    };
    runPasses(4);
    EXPECT_THAT(stalls, ElementsAre(0, 1, 2, 3, 0, 0, 0));
    EXPECT_EQ(4, count("read"));
    EXPECT_EQ(0, threads.sleptNs);
    EXPECT_THAT(ownLines(), ElementsAre(kSourceLog.debug("timeout0, rc=0\n"),
                                        kSourceLog.debug("loopcnt 0, pcmWrite 0\n"),
                                        kSourceLog.error("clear timeout, pcmStallCnt=3\n"),
                                        kSourceLog.debug("stopping buffer thread\n"),
                                        kSourceLog.debug("stop, close hw:1\n"),
                                        kSourceLog.debug("exit, loopcnt=7, pcmWrite 960\n")));
}

// A failed wait returns at once: without the pause the worker would spin.
TEST_F(UafSrcPlaybackTest, AnErrorOfTheWaitIsAStallOfTenMilliseconds) {
    waitResults({-ENODEV, -ENODEV});
    runPasses(2);
    EXPECT_EQ(20000000, threads.sleptNs);
    EXPECT_EQ(3, count("read"));
    EXPECT_THAT(ownLines(), IsSupersetOf({kSourceLog.debug("timeout0, rc=-19\n"),
                                          kSourceLog.error("clear timeout, pcmStallCnt=2\n")}));
}

TEST_F(UafSrcPlaybackTest, AnXrunOfTheWaitIsRecoveredWithoutAFrame) {
    for (const int code : {-EPIPE, -ESTRPIPE}) {
        forget();
        framesRead = 0;
        waitResults({code});
        runPasses(1);
        EXPECT_EQ(kLastPasses, framesRead);
        EXPECT_EQ(1, fake_alsa::count("snd_pcm_prepare"));
        EXPECT_EQ(1, fake_log::count(kAlsaLog.debug("xrun_recovery: playback xrun, err " +
                                                    std::to_string(code))));
        EXPECT_THAT(ownLines(), Contains(kSourceLog.debug("loopcnt 0, pcmWrite 0\n")));
        fake_alsa::hooks().writei = fake_alsa::device::writei;
        start();
        fake_alsa::setState(pcm(), SND_PCM_STATE_RUNNING);
    }
}

TEST_F(UafSrcPlaybackTest, AFailedRecoveryOfTheWaitStopsTheChannel) {
    waitResult = [] { return -EPIPE; };
    fake_alsa::answerAlways("snd_pcm_prepare", -ENODEV);
    runWorker();
    EXPECT_EQ(4, fake_alsa::count("snd_pcm_prepare"));
    EXPECT_EQ(0, framesRead);
    EXPECT_EQ(UAFCH_STOPPED, source->state);
    const std::vector<fake_log::Line> lines = ownLines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(kSourceLog.error("ALSA xrun recovery failed (No such device)\n"), lines[0]);
    EXPECT_EQ(kSourceLog.error("rc=-19\n"), lines[1]);
    EXPECT_EQ(kSourceLog.debug("exit, loopcnt=0, pcmWrite 0\n"), lines.back());
}

// ---- The frame ---------------------------------------------------------------------------------

TEST_F(UafSrcPlaybackTest, AFailedLockStopsTheChannel) {
    locks.answer("lock ssrs", EINVAL);
    runWorker();
    EXPECT_EQ(0, framesRead);
    EXPECT_EQ(0, count("unlock ssrs"));
    EXPECT_EQ(0, count("writei"));
    EXPECT_THAT(ownLines(), AllOf(Contains(kSourceLog.error("mutex lock failed: 22\n")).Times(4),
                                  Contains(kSourceLog.debug("exit, loopcnt=0, pcmWrite 0\n"))));
    EXPECT_EQ(UAFCH_STOPPED, source->state);
}

TEST_F(UafSrcPlaybackTest, AFailedUnlockStopsTheChannel) {
    locks.answer("unlock ssrs", EPERM);
    runWorker();
    EXPECT_EQ(0, count("writei"));
    EXPECT_EQ(4, count("unlock ssrs"));
    EXPECT_THAT(ownLines(), AllOf(Contains(kSourceLog.error("mutex unlock failed: 1\n")).Times(4),
                                  Contains(kSourceLog.debug("exit, loopcnt=0, pcmWrite 0\n"))));
}

// Without the lock the buffer thread could find the failed frame buffer before the stop is
// requested.
TEST_F(UafSrcPlaybackTest, AFrameBufferErrorKeepsTheLockUntilTheStopIsRequested) {
    readResult = 1;
    runWorker();
    std::vector<std::string> expected;
    for (int pass = 0; pass < 4; ++pass) {
        for (const char* entry : {"lock ssrs", "read", "lock intf", "unlock intf", "unlock ssrs"}) {
            expected.push_back(entry);
        }
    }
    for (const char* entry : {"lock intf", "signal", "join", "message 2,0", "unlock intf"}) {
        expected.push_back(entry);
    }
    EXPECT_EQ(expected, journal);
    EXPECT_THAT(ownLines(), AllOf(Contains(kSourceLog.error("SSRS_Read error: 1\n")).Times(4),
                                  Contains(kSourceLog.debug("exit, loopcnt=0, pcmWrite 0\n"))));
}

TEST_F(UafSrcPlaybackTest, AStarvedFrameBufferPlaysSilence) {
    fake_ssrs::hooks().SSRS_Read = nullptr;
    runPasses(2);
    EXPECT_THAT(played(), AllOf(SizeIs(5 * kFrameSamples), Each(0)));
}

// One block of the app is played after the silence that fills the buffer up to 600 samples.
TEST_F(UafSrcPlaybackTest, WhatTheAppWritesIsPlayed) {
    fake_ssrs::hooks().SSRS_Read = nullptr;
    fifo.onRead = [this, blocks = 0](int16_t* samples, size_t size) mutable {
        if (++blocks == 2) {
            switchOffInWait(1);
            runWorker();
            return ssize_t{-1};
        }
        for (int i = 0; i < kBlockSamples; ++i) {
            samples[2 * i] = static_cast<int16_t>(i + 1);
            samples[2 * i + 1] = -1;
        }
        return static_cast<ssize_t>(size);
    };
    runBufferThread();
    const Samples samples = played();
    ASSERT_THAT(samples, SizeIs(4 * kFrameSamples));
    for (int i = 0; i < kFrameSamples; ++i) {
        ASSERT_EQ(std::max(0, i - 119), samples[static_cast<size_t>(i)]);
    }
    // The second frame is below the range, so it takes 239 samples: 121 to 359.
    EXPECT_EQ(121, samples[kFrameSamples]);
    EXPECT_EQ(359, samples[2 * kFrameSamples - 1]);
    // The third finds the last 121 samples, and nothing after them.
    EXPECT_EQ(360, samples[2 * kFrameSamples]);
    EXPECT_EQ(0, samples[3 * kFrameSamples - 1]);
    EXPECT_THAT(Samples(samples.end() - kFrameSamples, samples.end()), Each(0));
}

// ---- The write ---------------------------------------------------------------------------------

TEST_F(UafSrcPlaybackTest, AShortWriteIsNotCompleted) {
    writeResults({100});
    runPasses(1);
    EXPECT_EQ(1 + kLastPasses, count("writei"));
    EXPECT_EQ(kSourceLog.debug("exit, loopcnt=4, pcmWrite 820\n"), fake_log::lines().back());
}

TEST_F(UafSrcPlaybackTest, AnXrunOfTheWriteLosesTheFrame) {
    writeResults({-EPIPE});
    waitResults({0});
    fake_alsa::hooks().state = [](snd_pcm_t*) { return SND_PCM_STATE_RUNNING; };
    source->availChkCnt = 9;
    runPasses(2);
    EXPECT_EQ(0, source->availChkCnt);
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_prepare"));
    // A recovered write is a success: it ends the stall and counts as a pass, but adds no frames.
    EXPECT_THAT(ownLines(), Contains(kSourceLog.error("clear timeout, pcmStallCnt=1\n")));
    EXPECT_EQ(4, framesRead);
    EXPECT_EQ(kSourceLog.debug("exit, loopcnt=5, pcmWrite 720\n"), fake_log::lines().back());
}

TEST_F(UafSrcPlaybackTest, ASuspendOfTheWriteIsRecoveredLikeAnXrun) {
    writeResults({-ESTRPIPE});
    runPasses(1);
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_resume"));
    EXPECT_EQ(1, fake_log::count(kAlsaLog.debug("xrun_recovery: playback xrun, err -86")));
    EXPECT_EQ(kSourceLog.debug("exit, loopcnt=4, pcmWrite 720\n"), fake_log::lines().back());
}

TEST_F(UafSrcPlaybackTest, AFailedRecoveryOfTheWriteStopsTheChannel) {
    writeResult = [](int) { return -EPIPE; };
    fake_alsa::answerAlways("snd_pcm_prepare", -ENODEV);
    source->pcmStallCnt = 2;
    source->availChkCnt = 9;
    runWorker();
    EXPECT_EQ(0, source->availChkCnt);
    EXPECT_EQ(4, count("writei"));
    const std::vector<fake_log::Line> lines = ownLines();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(kSourceLog.error("ALSA xrun recovery failed (No such device)\n"), lines[0]);
    EXPECT_EQ(kSourceLog.error("clear timeout, pcmStallCnt=2\n"), lines[1]);
    EXPECT_EQ(kSourceLog.error("rc=-19\n"), lines[2]);
    EXPECT_EQ(kSourceLog.debug("exit, loopcnt=0, pcmWrite 0\n"), lines.back());
}

TEST_F(UafSrcPlaybackTest, AnyOtherWriteErrorStopsTheChannelWithOneLine) {
    writeResult = [](int) { return -EIO; };
    source->pcmStallCnt = 2;
    runWorker();
    EXPECT_EQ(2, source->pcmStallCnt);
    EXPECT_EQ(UAFCH_STOPPED, source->state);
    EXPECT_THAT(
        ownLines(),
        AllOf(Contains(kSourceLog.error("stopping, unexpected write error(Input/output error)\n"))
                  .Times(4),
              Contains(kSourceLog.debug("exit, loopcnt=0, pcmWrite 0\n"))));
    EXPECT_THAT(ownLines(), SizeIs(4 + 3));
}

TEST_F(UafSrcPlaybackTest, AnOnWithinTheDebounceKeepsTheStream) {
    waitResult = [this, passes = 0]() mutable {
        ++passes;
        if (passes == 2 || passes == 8) {
            source->intfUpdate(false);
        }
        if (passes == 5) {
            source->intfUpdate(true);
        }
        return 1;
    };
    runWorker();
    EXPECT_EQ(kSourceLog.debug("exit, loopcnt=11, pcmWrite 2640\n"), fake_log::lines().back());
    EXPECT_THAT(fake_log::lines(), Contains(kChannelLog.debug("stopDelayCnt = 3\n")));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Pair(2U, 0U)));
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_close"));
}

}  // namespace
}  // namespace uafd
