// SPDX-License-Identifier: Apache-2.0
// The sink channel: start, stop, a period's way through it, the FIFO. Reads that fail are in
// uaf_snk_read_test.
#include "channel/uaf_snk.h"

#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/sink_bench.h"

namespace uafd {
namespace {

using fake_log::kSinkLog;
using fake_log::Line;
using sink_bench::kNsPerMs;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

using UafSnkTest = sink_bench::Test;

// ---- Start -------------------------------------------------------------------------------------

TEST_F(UafSnkTest, StartOpensTheCaptureInItsOneFormat) {
    EXPECT_EQ(0, snk->intfUpdate(true));
    EXPECT_THAT(fake_alsa::calls(),
                ElementsAre("snd_pcm_status_malloc()", "snd_pcm_open(hw:1, CAPTURE, 0)",
                            "snd_pcm_hw_params_any(pcm0, zeroed)",
                            "snd_pcm_hw_params_set_access(pcm0, RW_INTERLEAVED)",
                            "snd_pcm_hw_params_set_format(pcm0, S16_LE)",
                            "snd_pcm_hw_params_set_channels(pcm0, 1)",
                            "snd_pcm_hw_params_set_rate_near(pcm0, 48000, 0)",
                            "snd_pcm_hw_params_set_buffer_size_near(pcm0, 2400)",
                            "snd_pcm_hw_params_set_period_size_near(pcm0, 240, 0)",
                            "snd_pcm_hw_params(pcm0)", "snd_pcm_sw_params_current(pcm0, zeroed)",
                            "snd_pcm_sw_params_set_start_threshold(pcm0, 240)",
                            "snd_pcm_sw_params_set_stop_threshold(pcm0, 4800)",
                            "snd_pcm_sw_params_set_avail_min(pcm0, 240)", "snd_pcm_sw_params(pcm0)",
                            "snd_pcm_start(pcm0)"));
    EXPECT_THAT(log(), ElementsAre(kSinkLog.debug("start, opening hw:1\n")));
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(UafSnkTest, TellsTheAppOnAndOffWithTypeOne) {
    run(3);
    EXPECT_THAT(fake_ipc::messages(),
                ElementsAre(fake_ipc::Message{1, 1}, fake_ipc::Message{1, 0}));
}

TEST_F(UafSnkTest, StartWithoutStatusObjectFails) {
    fake_alsa::answerAt("snd_pcm_status_malloc", 1, -ENOMEM);
    EXPECT_EQ(-1, snk->intfUpdate(true));
    EXPECT_THAT(log(), ElementsAre(kSinkLog.error("failed snd_pcm_status_malloc\n")));
    EXPECT_EQ(0, fake_alsa::pcmsOpened());
    snk->setDevName(kFifoRxPath, "hw:1");
    EXPECT_EQ(0, snk->intfUpdate(true));
    EXPECT_EQ(2, fake_alsa::count("snd_pcm_status_malloc"));
}

TEST_F(UafSnkTest, FailedStatusObjectIsNotFreed) {
    fake_alsa::answerAlways("snd_pcm_status_malloc", -ENOMEM);
    EXPECT_EQ(-1, snk->intfUpdate(true));
    snk.reset();
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_status_free"));
}

TEST_F(UafSnkTest, StartWithoutMemoryFails) {
    memory.failAfter(0);
    EXPECT_EQ(-1, snk->intfUpdate(true));
    memory.neverFail();
    EXPECT_EQ(0, fake_alsa::pcmsOpened());
    EXPECT_EQ(0, snk->intfUpdate(true));
}

TEST_F(UafSnkTest, StatusObjectAndBufferAreAllocatedOnce) {
    run(3);
    memory.failAfter(0);
    run(3);
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_status_malloc"));
    EXPECT_EQ(2, fake_alsa::pcmsOpened());
}

TEST_F(UafSnkTest, FailedOpenLeavesNoHandle) {
    fake_alsa::answerAt("snd_pcm_open", 1, -EBUSY);
    EXPECT_EQ(-1, snk->intfUpdate(true));
    EXPECT_THAT(log(), ElementsAre(kSinkLog.debug("start, opening hw:1\n"),
                                   kSinkLog.error("error at uafStart@90: rc=-16\n")));
    fake_log::clear();
    EXPECT_EQ(0, snk->intfUpdate(true));
    EXPECT_THAT(log(), ElementsAre(kSinkLog.debug("start, opening hw:1\n")));
}

TEST_F(UafSnkTest, PositiveResultOfTheStartIsSuccess) {
    fake_alsa::answerAlways("snd_pcm_start", 1);
    EXPECT_EQ(0, snk->uafStart());
}

TEST_F(UafSnkTest, CodeOfTheFailedStepIsReturned) {
    fake_alsa::answerAt("snd_pcm_open", 1, -EBUSY);
    EXPECT_EQ(-EBUSY, snk->uafStart());
}

TEST_F(UafSnkTest, StartWithoutANameFailsItsOpen) {
    snk->setDevName(nullptr, nullptr);
    EXPECT_EQ(-EINVAL, snk->uafStart());
    EXPECT_THAT(log(), ElementsAre(kSinkLog.debug("start, opening (null)\n"),
                                   kSinkLog.error("error at uafStart@90: rc=-22\n")));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_open"));
}

struct FailingStep {
    const char* call;
    const char* report;
};

std::ostream& operator<<(std::ostream& out, const FailingStep& step) {
    return out << step.call;
}

class UafSnkStepTest : public UafSnkTest, public testing::WithParamInterface<FailingStep> {};

// A failed start undoes nothing.
TEST_P(UafSnkStepTest, FailureLeavesThePcmForTheNextStartToClose) {
    fake_alsa::answerAt(GetParam().call, 1, -EINVAL);
    EXPECT_EQ(-1, snk->intfUpdate(true));
    EXPECT_EQ(1, fake_alsa::pcmsOpen());
    EXPECT_THAT(log(), ElementsAre(kSinkLog.debug("start, opening hw:1\n"),
                                   kSinkLog.error(GetParam().report)));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_close"));
    EXPECT_THAT(fake_ipc::messages(), IsEmpty());

    fake_log::clear();
    fake_alsa::clearCalls();
    EXPECT_EQ(0, snk->intfUpdate(true));
    EXPECT_THAT(log(), ElementsAre(kSinkLog.error("start, audio still open, trying to close\n"),
                                   kSinkLog.debug("stop, closing hw:1\n")));
    EXPECT_EQ("snd_pcm_drop(pcm0)", fake_alsa::calls()[0]);
    EXPECT_EQ("snd_pcm_close(pcm0)", fake_alsa::calls()[1]);
    EXPECT_EQ("snd_pcm_open(hw:1, CAPTURE, 0)", fake_alsa::calls()[2]);
    EXPECT_EQ(1, fake_alsa::pcmsOpen());
}

INSTANTIATE_TEST_SUITE_P(
    UafSnk, UafSnkStepTest,
    testing::Values(FailingStep{"snd_pcm_hw_params_set_channels", "error at uafStart@92: rc=-22\n"},
                    FailingStep{"snd_pcm_sw_params", "error at uafStart@94: rc=-22\n"},
                    FailingStep{"snd_pcm_start", "error at uafStart@100: rc=-22\n"}));

TEST_F(UafSnkTest, StartWhileStillOpenClosesTheFifoToo) {
    onWrite = [this](int number) {
        if (number == 1) {
            events.clear();
            fake_log::clear();
            EXPECT_EQ(0, snk->uafStart());
            EXPECT_THAT(events, ElementsAre("close 77"));
            EXPECT_THAT(log(),
                        ElementsAre(kSinkLog.error("start, audio still open, trying to close\n"),
                                    kSinkLog.debug("stop, closing hw:1\n"),
                                    kSinkLog.debug("stop, closing /tmp/usbAudioFifoRx\n")));
        }
        return 960;
    };
    run(4);
    EXPECT_THAT(written, SizeIs(4));
    EXPECT_EQ(2, fake_alsa::pcmsOpened());
    EXPECT_EQ(0, fake_alsa::pcmsOpen());
}

// ---- Stop --------------------------------------------------------------------------------------

TEST_F(UafSnkTest, StopClosesThePcmAndThenTheFifo) {
    run(3);
    fake_alsa::hooks().before = nullptr;
    EXPECT_EQ("close 77", events.back());
    const auto calls = fake_alsa::calls();
    EXPECT_EQ("snd_pcm_drop(pcm0)", calls[calls.size() - 2]);
    EXPECT_EQ("snd_pcm_close(pcm0)", calls[calls.size() - 1]);
    const auto lines = log();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(kSinkLog.debug("stop, closing hw:1\n"), lines[lines.size() - 3]);
    EXPECT_EQ(kSinkLog.debug("stop, closing /tmp/usbAudioFifoRx\n"), lines[lines.size() - 2]);
}

TEST_F(UafSnkTest, StopOfAStoppedChannelDoesNothing) {
    run(3);
    fake_log::clear();
    fake_alsa::clearCalls();
    events.clear();
    EXPECT_EQ(0, snk->uafStop());
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_THAT(fake_alsa::calls(), IsEmpty());
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(UafSnkTest, StopAfterTheNamesAreGoneShowsNull) {
    onPass = [this](int number) {
        if (number == 2) {
            snk->setDevName(nullptr, nullptr);
        }
    };
    run(4);
    EXPECT_THAT(log(), Contains(kSinkLog.debug("stop, closing (null)\n")).Times(2));
    EXPECT_THAT(written, SizeIs(4));
}

TEST_F(UafSnkTest, DestructionFreesTheStatusObjectAndLeavesThePcm) {
    EXPECT_EQ(0, snk->intfUpdate(true));
    EXPECT_EQ(1, fake_alsa::statusObjects());
    snk.reset();
    EXPECT_EQ(0, fake_alsa::statusObjects());
    EXPECT_EQ(1, fake_alsa::pcmsOpen());
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_drop"));
}

// Unlike the source's FIFO, only a stop closes it.
TEST_F(UafSnkTest, DestructionLeavesTheFifoOpen) {
    struct OpenSink : UafSnk {
        using UafCh::fifo;
    };
    auto doomed = std::make_unique<OpenSink>();
    ASSERT_TRUE(doomed->fifo.openEnd(kFifoRxPath, O_WRONLY, 960, "UAFSNK"));
    events.clear();
    doomed.reset();
    EXPECT_THAT(events, IsEmpty());
}

// ---- The signal --------------------------------------------------------------------------------

// By default, the signal of a write that nobody reads would end the daemon.
TEST_F(UafSnkTest, LoopInstallsTheHandlerOfABrokenFifo) {
    int installed = 0;
    fake_sys::hooks().sigaction = [&](int number, const struct sigaction* action,
                                      struct sigaction* old) {
        ++installed;
        EXPECT_EQ(SIGPIPE, number);
        EXPECT_EQ(nullptr, old);
        EXPECT_EQ(0, action->sa_flags);
        for (int signal = 1; signal < NSIG; ++signal) {
            EXPECT_NE(1, sigismember(&action->sa_mask, signal));
        }
        fake_log::clear();
        action->sa_handler(SIGPIPE);
        EXPECT_THAT(log(), ElementsAre(kSinkLog.error("handler: 13\n")));
        return 0;
    };
    EXPECT_EQ(0, snk->intfUpdate(true));
    EXPECT_EQ(0, installed);
    runLoop(3);
    EXPECT_EQ(1, installed);
}

TEST_F(UafSnkTest, LoopRunsWithoutTheHandler) {
    fake_sys::hooks().sigaction = fake_sys::failing(EINVAL);
    run(3);
    EXPECT_THAT(log(),
                Contains(kSinkLog.error("sigaction failed: <22:Invalid argument>\n")).Times(1));
    EXPECT_THAT(written, SizeIs(3));
}

// ---- The way of a period -----------------------------------------------------------------------

TEST_F(UafSnkTest, EveryFrameReachesTheAppOnceInStereo) {
    run(200);
    ASSERT_THAT(written, SizeIs(200));
    for (uint64_t i = 0; i < written.size(); ++i) {
        EXPECT_EQ(stereoFrom(i * 240), written[i]) << i;
    }
}

TEST_F(UafSnkTest, WaitsTenMillisecondsForOnePeriod) {
    run(3);
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_wait"), Each("snd_pcm_wait(pcm0, 10)"));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_readi"), Each("snd_pcm_readi(pcm0, 240)"));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_wait"), SizeIs(3));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_readi"), SizeIs(3));
}

// The worker is a real-time thread, and an allocation may block.
TEST_F(UafSnkTest, StreamingAllocatesNothing) {
    EXPECT_EQ(0, snk->intfUpdate(true));
    int allocations = 0;
    fake_sys::hooks().malloc = [&](size_t size) {
        ++allocations;
        return fake_sys::real::malloc(size);
    };
    memory.failAfter(0);
    runLoop(10);
    EXPECT_EQ(0, allocations);
}

TEST_F(UafSnkTest, ProgressIsLoggedAtTheFirstWriteAndEvery6000) {
    run(12001);
    std::vector<Line> expected{
        kSinkLog.debug("start, opening hw:1\n"),
        kSinkLog.error("Failed to open /proc/asound/card0/id: No such file or "
                       "directory"),
        kSinkLog.error("Failed to open /proc/asound/card0/pcm1c/sub0/status: No "
                       "such file or directory"),
        kSinkLog.error("synch startup failed"),
        kSinkLog.debug("/tmp/usbAudioFifoRx opened buffer size 4096\n"),
        kSinkLog.debug("loopcnt 0, pcmRead 240, fifoWrite 960\n"),
        kSinkLog.debug("loopcnt 6000, pcmRead 1440240, fifoWrite 5760960\n"),
        kSinkLog.debug("loopcnt 12000, pcmRead 2880240, fifoWrite 11520960\n"),
        kSinkLog.debug("stop, closing hw:1\n"),
        kSinkLog.debug("stop, closing /tmp/usbAudioFifoRx\n"),
        kSinkLog.debug("exit, loopcnt=12001, pcmRead 2880240, fifoWrite 11520960\n")};
    EXPECT_THAT(log(), ElementsAreArray(expected));
}

// The daemon runs for months, longer than the counters last.
TEST_F(UafSnkTest, TotalsWrap) {
    fake_alsa::answerAlways("snd_pcm_readi", 0x40000000);
    run(3);
    EXPECT_EQ(kSinkLog.debug("exit, loopcnt=3, pcmRead -1073741824, fifoWrite 2880\n"),
              log().back());
}

TEST_F(UafSnkTest, ShortReadIsCountedAsItIs) {
    fake_alsa::answerAt("snd_pcm_readi", 2, 100);
    fake_alsa::answerAt("snd_pcm_readi", 3, 0);
    run(4);
    EXPECT_EQ(kSinkLog.debug("exit, loopcnt=4, pcmRead 580, fifoWrite 3840\n"), log().back());
}

// ---- Start synchronisation ---------------------------------------------------------------------

class UafSnkSynchTest : public UafSnkTest {
  protected:
    void SetUp() override {
        UafSnkTest::SetUp();
        files.put("/proc/asound/card0/id", "tarvine\n");
        files.put("/proc/asound/card0/pcm0c/sub0/status",
                  "state: RUNNING\ntstamp      : 100.000000000\n");
        fake_sys::hooks().clock_gettime = [this](clockid_t, timespec* now) {
            *now = {100, (pass * 5 - firstPhaseMs) * kNsPerMs};
            return 0;
        };
    }
    int firstPhaseMs = 0;  // pass 1 is at 5 ms minus this
};

TEST_F(UafSnkSynchTest, HeldBackPeriodsAreReadButNotWritten) {
    firstPhaseMs = 0;  // 5, 10, 15 ms ...: the first is held back
    run(5);
    ASSERT_THAT(written, SizeIs(4));
    EXPECT_EQ(stereoFrom(240), written[0]);
    EXPECT_THAT(log(), Contains(kSinkLog.debug("synch startup ok")).Times(1));
    EXPECT_THAT(log(), Contains(kSinkLog.debug("loopcnt 0, pcmRead 480, fifoWrite 960\n")));
    EXPECT_EQ(kSinkLog.debug("exit, loopcnt=4, pcmRead 1200, fifoWrite 3840\n"), log().back());
}

TEST_F(UafSnkSynchTest, TimedOutPeriodIsNeverTheFirst) {
    firstPhaseMs = 5;  // 0, 5, 10 ms: the first could be written, the second is held back
    fake_alsa::answerAt("snd_pcm_wait", 1, 0);
    run(5);
    ASSERT_THAT(written, SizeIs(3));
    EXPECT_EQ(stereoFrom(240), written[0]);
}

TEST_F(UafSnkSynchTest, EveryStartSynchronisesAfresh) {
    run(4);
    run(4);
    EXPECT_THAT(written, SizeIs(6));
    EXPECT_THAT(log(), Contains(kSinkLog.debug("synch startup ok")).Times(2));
    EXPECT_THAT(files.events, SizeIs(8));
}

}  // namespace
}  // namespace uafd
