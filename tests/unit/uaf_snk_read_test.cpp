// SPDX-License-Identifier: Apache-2.0
// The sink channel's reads: a card that stops, times out, has an xrun, fails, or has built up a
// backlog.
#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/sink_bench.h"

namespace uafd {
namespace {

using fake_log::kSinkLog;
using sink_bench::kNsPerMs;
using sink_bench::Period;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

using UafSnkReadTest = sink_bench::Test;

// ---- The PCM's states --------------------------------------------------------------------------

// After a recovery the capture is prepared and does not start by itself.
TEST_F(UafSnkReadTest, StoppedPcmIsStartedAgain) {
    for (const snd_pcm_state_t stopped : {SND_PCM_STATE_SETUP, SND_PCM_STATE_PREPARED}) {
        fake_alsa::clearCalls();
        checks.clear();
        pass = 0;
        EXPECT_EQ(0, snk->intfUpdate(true));
        fake_alsa::answerAt("snd_pcm_state", 2, stopped);
        fake_alsa::answerAt("snd_pcm_start", 1, 1);
        runLoop(4);
        EXPECT_EQ(2, fake_alsa::count("snd_pcm_start")) << stopped;
        EXPECT_THAT(checks, ElementsAre(1, 2));  // the restart requires a backlog check
        EXPECT_EQ(0, fake_alsa::pcmsOpen());
        fake_alsa::stopAnswering("snd_pcm_state");
        fake_alsa::stopAnswering("snd_pcm_start");
    }
}

TEST_F(UafSnkReadTest, PcmInAnyOtherStateIsLeftToTheWait) {
    EXPECT_EQ(0, snk->intfUpdate(true));
    fake_alsa::answerAt("snd_pcm_state", 1, SND_PCM_STATE_OPEN);
    fake_alsa::answerAt("snd_pcm_state", 2, SND_PCM_STATE_XRUN);
    fake_alsa::answerAt("snd_pcm_state", 3, SND_PCM_STATE_SUSPENDED);
    fake_alsa::answerAt("snd_pcm_state", 4, SND_PCM_STATE_DISCONNECTED);
    runLoop(4);
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_start"));
    EXPECT_EQ(4, fake_alsa::count("snd_pcm_wait"));
}

TEST_F(UafSnkReadTest, PcmThatDoesNotStartAgainStopsTheChannel) {
    onPass = [](int number) {
        if (number == 2) {
            fake_alsa::answerAt("snd_pcm_state", 1, SND_PCM_STATE_PREPARED);
            fake_alsa::answerAt("snd_pcm_start", 1, -ENODEV);
        }
    };
    runUntilStopped();
    EXPECT_EQ(5, pass);
    EXPECT_THAT(
        log(), Contains(kSinkLog.error("stopping, ALSA failed to start: No such device")).Times(1));
    EXPECT_THAT(written, SizeIs(4));
    EXPECT_EQ(4, fake_alsa::count("snd_pcm_wait"));
}

// ---- Waits that fail ---------------------------------------------------------------------------

// The app reads at the pace of the sound, so its reads must not find the FIFO empty.
TEST_F(UafSnkReadTest, SilenceIsWrittenWhileTheHostSendsNothing) {
    for (const int number : {2, 3, 4}) {
        fake_alsa::answerAt("snd_pcm_wait", number, 0);
    }
    run(6);
    ASSERT_THAT(written, SizeIs(6));
    EXPECT_EQ(stereoFrom(0), written[0]);
    EXPECT_THAT(std::vector<Period>(written.begin() + 1, written.begin() + 4), Each(silence()));
    EXPECT_EQ(stereoFrom(240), written[4]);
    EXPECT_THAT(log(), Contains(kSinkLog.debug("timeout0, rc=0\n")).Times(1));
    EXPECT_THAT(log(), Contains(kSinkLog.debug("clear timeout, pcmStallCnt=3\n")).Times(1));
    EXPECT_THAT(pausesNs, IsEmpty());
    EXPECT_EQ(kSinkLog.debug("exit, loopcnt=6, pcmRead 720, fifoWrite 5760\n"), log().back());
}

TEST_F(UafSnkReadTest, EachRunOfTimeoutsIsLoggedOnce) {
    for (const int number : {1, 2, 4}) {
        fake_alsa::answerAt("snd_pcm_wait", number, 0);
    }
    run(5);
    EXPECT_THAT(log(), Contains(kSinkLog.debug("timeout0, rc=0\n")).Times(2));
    EXPECT_THAT(log(), Contains(kSinkLog.debug("clear timeout, pcmStallCnt=2\n")).Times(1));
    EXPECT_THAT(log(), Contains(kSinkLog.debug("clear timeout, pcmStallCnt=1\n")).Times(1));
}

TEST_F(UafSnkReadTest, StartForgetsStalls) {
    fake_alsa::answerAlways("snd_pcm_wait", 0);
    run(3);
    fake_alsa::stopAnswering("snd_pcm_wait");
    fake_log::clear();
    run(3);
    EXPECT_THAT(log(), Not(Contains(kSinkLog.debug("clear timeout, pcmStallCnt=3\n"))));
}

TEST_F(UafSnkReadTest, NoNumberOfStallsStopsTheChannel) {
    fake_alsa::answerAlways("snd_pcm_wait", 0);
    run(5000);
    EXPECT_THAT(written, SizeIs(5000));
}

// A failed wait returns at once: without the pause the worker would spin.
TEST_F(UafSnkReadTest, OtherWaitErrorIsATimeoutAndTakesAsLong) {
    fake_alsa::answerAt("snd_pcm_wait", 1, -ENODEV);
    fake_alsa::answerAt("snd_pcm_wait", 2, -EIO);
    run(4);
    EXPECT_THAT(log(), Contains(kSinkLog.debug("timeout0, rc=-19\n")).Times(1));
    EXPECT_THAT(log(), Not(Contains(kSinkLog.debug("timeout0, rc=-5\n"))));
    EXPECT_THAT(log(), Contains(kSinkLog.debug("clear timeout, pcmStallCnt=2\n")).Times(1));
    EXPECT_THAT(pausesNs, ElementsAre(10 * kNsPerMs, 10 * kNsPerMs));
    EXPECT_EQ(silence(), written[0]);
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_prepare"));
}

TEST_F(UafSnkReadTest, WaitThatReturnsAnotherPositiveNumberIsATimeout) {
    fake_alsa::answerAt("snd_pcm_wait", 1, 2);
    run(3);
    EXPECT_THAT(log(), Contains(kSinkLog.debug("timeout0, rc=2\n")).Times(1));
    EXPECT_THAT(pausesNs, IsEmpty());
}

TEST_F(UafSnkReadTest, XrunInTheWaitIsRecoveredIntoSilence) {
    fake_alsa::answerAt("snd_pcm_wait", 2, -EPIPE);
    run(5);
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_prepare"));
    EXPECT_EQ(2, fake_alsa::count("snd_pcm_start"));  // the next pass finds the PCM prepared
    EXPECT_THAT(checks, ElementsAre(1, 3));
    EXPECT_EQ(silence(), written[1]);
    EXPECT_NE(silence(), written[2]);
    EXPECT_THAT(log(), Not(Contains(kSinkLog.debug("timeout0, rc=-32\n"))));
}

TEST_F(UafSnkReadTest, SuspendInTheWaitIsResumed) {
    onPass = [](int number) {
        if (number == 2) {
            fake_alsa::setState(fake_alsa::pcm(0), SND_PCM_STATE_SUSPENDED);
        }
    };
    run(4);
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_resume"));
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_start"));
    EXPECT_THAT(written, ElementsAre(stereoFrom(0), silence(), stereoFrom(240), stereoFrom(480)));
}

TEST_F(UafSnkReadTest, FailedRecoveryInTheWaitStopsTheChannel) {
    fake_alsa::answerAt("snd_pcm_wait", 2, -EPIPE);
    fake_alsa::answerAt("snd_pcm_prepare", 1, -ENODEV);
    runUntilStopped();
    EXPECT_EQ(5, pass);
    EXPECT_THAT(written, SizeIs(4));
    EXPECT_THAT(log(),
                Contains(kSinkLog.error("ALSA xrun recovery failed (No such device)\n")).Times(1));
    EXPECT_THAT(log(), Contains(kSinkLog.error("rc=-19\n")).Times(1));
}

// ---- Reads that fail ---------------------------------------------------------------------------

// The read has left the buffer unchanged, and a period is due.
TEST_F(UafSnkReadTest, XrunInTheReadRepeatsWhatTheBufferHolds) {
    fake_alsa::answerAt("snd_pcm_readi", 2, -EPIPE);
    run(5);
    Period repeated(written[0]);
    UafCh::adjCh(repeated.data(), 1, 2, 240);
    EXPECT_EQ(repeated, written[1]);
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_prepare"));
    EXPECT_THAT(checks, ElementsAre(1, 3));
    EXPECT_EQ(kSinkLog.debug("exit, loopcnt=5, pcmRead 960, fifoWrite 4800\n"), log().back());
}

TEST_F(UafSnkReadTest, SuspendInTheReadIsResumedAndMakesACheckDue) {
    EXPECT_EQ(0, snk->intfUpdate(true));
    fake_alsa::answerAt("snd_pcm_readi", 2, -ESTRPIPE);
    fake_alsa::answerAt("snd_pcm_resume", 1, 0);
    runLoop(5);
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_resume"));
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_start"));
    EXPECT_THAT(checks, ElementsAre(1, 3));
}

TEST_F(UafSnkReadTest, XrunInTheFirstReadOfAllGivesSilence) {
    fake_alsa::answerAt("snd_pcm_readi", 1, -EPIPE);
    run(3);
    EXPECT_EQ(silence(), written[0]);
}

TEST_F(UafSnkReadTest, FailedRecoveryInTheReadMakesACheckDue) {
    fake_alsa::answerAt("snd_pcm_readi", 2, -EPIPE);
    fake_alsa::answerAt("snd_pcm_prepare", 1, -ENODEV);
    runUntilStopped();
    EXPECT_THAT(checks, ElementsAre(1, 3));
}

TEST_F(UafSnkReadTest, FailedRecoveryInTheReadStopsTheChannel) {
    fake_alsa::answerAt("snd_pcm_readi", 2, -EPIPE);
    fake_alsa::answerAt("snd_pcm_prepare", 1, -ENODEV);
    runUntilStopped();
    EXPECT_EQ(5, pass);
    EXPECT_THAT(written, SizeIs(4));
    EXPECT_THAT(log(),
                Contains(kSinkLog.error("ALSA xrun recovery failed (No such device)\n")).Times(1));
    EXPECT_THAT(log(), Contains(kSinkLog.error("rc=-19\n")).Times(1));
}

TEST_F(UafSnkReadTest, RecoveryThatFailsWithMinusOneHasNoCodeLine) {
    fake_alsa::answerAt("snd_pcm_wait", 1, 0);
    fake_alsa::answerAt("snd_pcm_readi", 1, -EPIPE);
    fake_alsa::answerAt("snd_pcm_prepare", 1, -EPERM);
    runUntilStopped();
    EXPECT_EQ(5, pass);
    EXPECT_THAT(
        log(),
        Contains(kSinkLog.error("ALSA xrun recovery failed (Operation not permitted)\n")).Times(1));
    EXPECT_THAT(log(), Not(Contains(kSinkLog.error("rc=-1\n"))));
    // The stall is still counted: the period that ends it is read in the next pass.
    EXPECT_THAT(log(), Contains(kSinkLog.debug("clear timeout, pcmStallCnt=1\n")).Times(1));
}

TEST_F(UafSnkReadTest, FailedRecoveryStillEndsARunOfTimeouts) {
    fake_alsa::answerAt("snd_pcm_wait", 1, 0);
    fake_alsa::answerAt("snd_pcm_readi", 1, -EPIPE);
    fake_alsa::answerAt("snd_pcm_prepare", 1, -ENODEV);
    runUntilStopped();
    const auto lines = log();
    const auto cleared =
        std::find(lines.begin(), lines.end(), kSinkLog.debug("clear timeout, pcmStallCnt=1\n"));
    ASSERT_NE(lines.end(), cleared);
    EXPECT_EQ(kSinkLog.error("rc=-19\n"), *(cleared + 1));
}

TEST_F(UafSnkReadTest, UnexpectedReadErrorStopsTheChannel) {
    fake_alsa::answerAt("snd_pcm_readi", 2, -EIO);
    fake_alsa::answerAt("snd_pcm_readi", 3, 240);  // leaves the cleared buffer unchanged
    runUntilStopped();
    EXPECT_EQ(5, pass);
    EXPECT_THAT(log(), Contains(kSinkLog.error("stopping, unexpected read error\n")).Times(1));
    EXPECT_THAT(log(), Not(Contains(kSinkLog.error("rc=-5\n"))));
    ASSERT_THAT(written, SizeIs(4));
    EXPECT_EQ(silence(), written[1]);
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_prepare"));
}

// ---- The backlog -------------------------------------------------------------------------------

TEST_F(UafSnkReadTest, BacklogIsCheckedEveryHundredReadyPeriods) {
    run(302);
    EXPECT_THAT(checks, ElementsAre(1, 101, 201, 301));
}

TEST_F(UafSnkReadTest, TimeoutsDoNotPaceTheCheck) {
    for (const int number : {1, 50, 60}) {
        fake_alsa::answerAt("snd_pcm_wait", number, 0);
    }
    run(110);
    EXPECT_THAT(checks, ElementsAre(2, 104));
}

TEST_F(UafSnkReadTest, ThreePeriodsAreNoBacklog) {
    fake_alsa::hooks().availUpdate = [](snd_pcm_t*) { return 720; };
    run(4);
    EXPECT_THAT(checks, ElementsAre(1));
    EXPECT_EQ(4, fake_alsa::count("snd_pcm_readi"));
}

// A backlog would stay as delay for the rest of the stream.
TEST_F(UafSnkReadTest, OneFrameMoreIsDropped) {
    int avail = 721;
    fake_alsa::hooks().availUpdate = [&](snd_pcm_t*) { return avail; };
    fake_alsa::hooks().readi = [&](snd_pcm_t*, int16_t*, snd_pcm_uframes_t frames) {
        avail = 481;
        return static_cast<snd_pcm_sframes_t>(frames);
    };
    run(5);
    EXPECT_THAT(
        log(),
        Contains(kSinkLog.debug("too much samples in the buffer, drop samples. (avail=721)\n"))
            .Times(1));
    EXPECT_EQ(6, fake_alsa::count("snd_pcm_readi"));
    // The check asks once and then before each drop; the next check is three periods later.
    EXPECT_THAT(checks, ElementsAre(1, 1, 1, 4));
    EXPECT_THAT(written, SizeIs(5));
    EXPECT_EQ(kSinkLog.debug("exit, loopcnt=5, pcmRead 1200, fifoWrite 4800\n"), log().back());
}

TEST_F(UafSnkReadTest, LargeBacklogIsDroppedInWholePeriods) {
    EXPECT_EQ(0, snk->intfUpdate(true));
    fake_alsa::advance(fake_alsa::pcm(0), 42 * kNsPerMs);  // 2016 frames
    runLoop(3);
    EXPECT_THAT(
        log(),
        Contains(kSinkLog.debug("too much samples in the buffer, drop samples. (avail=2016)\n"))
            .Times(1));
    // After six periods are dropped, 576 frames are left.
    EXPECT_THAT(written, ElementsAre(stereoFrom(1440), stereoFrom(1680), stereoFrom(1920)));
}

TEST_F(UafSnkReadTest, DroppingEndsAtExactlyThreePeriods) {
    EXPECT_EQ(0, snk->intfUpdate(true));
    fake_alsa::advance(fake_alsa::pcm(0), 40 * kNsPerMs);  // 1920 frames
    runLoop(3);
    EXPECT_THAT(written, ElementsAre(stereoFrom(1200), stereoFrom(1440), stereoFrom(1680)));
}

TEST_F(UafSnkReadTest, CheckAfterADropGoesBackToEveryHundred) {
    int answers = 0;
    fake_alsa::hooks().availUpdate = [&](snd_pcm_t*) { return ++answers <= 2 ? 721 : 240; };
    run(110);
    EXPECT_THAT(checks, ElementsAre(1, 1, 1, 4, 104));
}

TEST_F(UafSnkReadTest, ReadThatFailsInADropStopsTheChannel) {
    fake_alsa::hooks().availUpdate = [](snd_pcm_t*) { return 960; };
    fake_alsa::answerAt("snd_pcm_readi", 1, -EIO);
    runUntilStopped();
    EXPECT_EQ(4, pass);
    EXPECT_THAT(checks, ElementsAre(1, 1));
    EXPECT_THAT(written, SizeIs(3));
    EXPECT_THAT(log(), Contains(kSinkLog.error("stopping, unexpected read error\n")).Times(1));
}

TEST_F(UafSnkReadTest, XrunInADropGoesOnDroppingAndTheNextCheckIsThreePeriodsAway) {
    std::vector<int> avail{960, 960, 960, 240};
    size_t asked = 0;
    fake_alsa::hooks().availUpdate = [&](snd_pcm_t*) {
        return asked < avail.size() ? avail[asked++] : 240;
    };
    fake_alsa::answerAt("snd_pcm_readi", 1, -ESTRPIPE);
    fake_alsa::answerAt("snd_pcm_resume", 1, 0);
    run(5);
    EXPECT_THAT(checks, ElementsAre(1, 1, 1, 1, 4));
    EXPECT_EQ(7, fake_alsa::count("snd_pcm_readi"));
}

TEST_F(UafSnkReadTest, FailedRecoveryInADropLeavesTheDrain) {
    int answers = 0;
    fake_alsa::hooks().availUpdate = [&](snd_pcm_t*) { return ++answers <= 2 ? 960 : 240; };
    fake_alsa::answerAt("snd_pcm_readi", 1, -EPIPE);
    fake_alsa::answerAt("snd_pcm_prepare", 1, -ENODEV);
    run(5);
    EXPECT_THAT(log(),
                Contains(kSinkLog.error("ALSA xrun recovery failed (No such device)\n")).Times(1));
    EXPECT_THAT(log(), Not(Contains(kSinkLog.error("rc=-19\n"))));
    EXPECT_THAT(checks, ElementsAre(1, 1, 4));
    EXPECT_EQ(6, fake_alsa::count("snd_pcm_readi"));
    EXPECT_THAT(written, SizeIs(5));
}

TEST_F(UafSnkReadTest, BacklogCheckThatFailsDropsNothing) {
    fake_alsa::answerAlways("snd_pcm_avail_update", -EPIPE);
    run(3);
    EXPECT_THAT(checks, ElementsAre(1));
    EXPECT_THAT(written, SizeIs(3));
}

}  // namespace
}  // namespace uafd
