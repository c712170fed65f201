// SPDX-License-Identifier: Apache-2.0
// The source channel's start, stop and destruction. The buffer thread and the two loops have their
// own tests.
#include "channel/uaf_src.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/source_bench.h"

namespace uafd {
namespace {

using fake_log::kChannelLog;
using fake_log::kSourceLog;
using namespace source_bench;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::SizeIs;

class UafSrcTest : public source_bench::Test {
  protected:
    // Opens the FIFO as the buffer thread does.
    void openFifo() {
        ASSERT_TRUE(source->fifo.openEnd(kFifoPath, O_RDONLY, 2 * kBlockSamples * sizeof(int16_t),
                                         "UAFSRC"));
        forget();
    }
};

// ---- Construction and destruction --------------------------------------------------------------

TEST_F(UafSrcTest, IsStoppedWithNothingOpenAtFirst) {
    EXPECT_EQ(UAFCH_STOPPED, source->state);
    EXPECT_EQ(nullptr, source->pcmHandle);
    EXPECT_FALSE(source->fifo.isOpen());
    EXPECT_EQ(0, source->pcmStallCnt);
    EXPECT_EQ(0, source->uafStop());
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(fake_alsa::calls(), IsEmpty());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(UafSrcTest, GoesOnWithoutTheFrameBuffersMutex) {
    int inits = 0;
    fake_sys::hooks().pthread_mutex_init = [&](pthread_mutex_t*, const pthread_mutexattr_t* given) {
        EXPECT_EQ(nullptr, given);
        return ++inits == 2 ? ENOMEM : 0;
    };
    const UafSrc fresh;
    EXPECT_THAT(fake_log::lines(), ElementsAre(kSourceLog.error("pthread_mutex_init failed\n")));
}

TEST_F(UafSrcTest, DestructionClosesTheFifoAndFreesTheStatusButNotThePcm) {
    start();
    openFifo();
    EXPECT_EQ(1, fake_alsa::statusObjects());
    source.reset();
    EXPECT_EQ(0, fake_alsa::statusObjects());
    EXPECT_EQ(1, fake_alsa::pcmsOpen());
    EXPECT_THAT(journal, ElementsAre("close 77"));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kSourceLog.debug("destruct, closing /tmp/usbAudioFifoTx\n")));
}

// Descriptor 0 is standard input, which the channel must not close.
TEST_F(UafSrcTest, DestructionLeavesADescriptorOfZeroAlone) {
    fifo.openResult = 0;
    openFifo();
    source->setDevName(nullptr, nullptr);
    source.reset();
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(UafSrcTest, DestructionNamesAnUnsetFifo) {
    fifo.openResult = 1;
    openFifo();
    source->setDevName(nullptr, nullptr);
    source.reset();
    EXPECT_THAT(fake_log::lines(), ElementsAre(kSourceLog.debug("destruct, closing (null)\n")));
}

// ---- Start -------------------------------------------------------------------------------------

TEST_F(UafSrcTest, AStartRunsItsStepsInOrder) {
    watchSetUp();
    EXPECT_EQ(0, source->intfUpdate(true));
    EXPECT_THAT(journal, ElementsAre("lock intf", "init", "frame 240", "storage 960",
                                     "depth 480-720", "create buffer", "snd_pcm_status_malloc()",
                                     "snd_pcm_open(hw:1, PLAYBACK, 0)", "message 2,1",
                                     "create worker", "unlock intf"));
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(kChannelLog.debug("intfUpdate to 1, current state 3\n"),
                    kSourceLog.debug("init SSRS\n"), kSourceLog.debug("start, opening hw:1\n")));
}

TEST_F(UafSrcTest, AStartSetsThePcmUpAndPrimesItWithSilence) {
    start();
    source->uafStop();
    ASSERT_EQ(0, source->uafStart());
    snd_pcm_t* const pcm = fake_alsa::pcm(1);
    EXPECT_EQ(pcm, source->pcmHandle);
    EXPECT_THAT(fake_alsa::calls(),
                IsSupersetOf({"snd_pcm_hw_params_set_buffer_size_near(pcm1, 720)",
                              "snd_pcm_hw_params_set_channels(pcm1, 1)",
                              "snd_pcm_sw_params_set_start_threshold(pcm1, 240)",
                              "snd_pcm_sw_params_set_stop_threshold(pcm1, 1440)",
                              "snd_pcm_sw_params_set_avail_min(pcm1, 240)"}));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_hw_params_set_period_size_near"),
                ElementsAre("snd_pcm_hw_params_set_period_size_near(pcm1, 240, 0)"));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_hw_params_set_rate_near"),
                ElementsAre("snd_pcm_hw_params_set_rate_near(pcm1, 48000, 0)"));
    EXPECT_EQ("snd_pcm_writei(pcm1, 240)", fake_alsa::calls().back());
    EXPECT_THAT(fake_alsa::written(pcm), AllOf(SizeIs(kFrameSamples), Each(0)));
}

TEST_F(UafSrcTest, AStartResetsTheCounters) {
    source->pcmStallCnt = 5;
    source->availChkCnt = 5;
    start();
    EXPECT_EQ(0, source->pcmStallCnt);
    EXPECT_EQ(0, source->availChkCnt);
}

TEST_F(UafSrcTest, AShortSilentWriteIsNoFailure) {
    fake_alsa::answerAt("snd_pcm_writei", 1, 100);
    EXPECT_EQ(0, source->intfUpdate(true));
}

// The numbers name the steps in field logs.
TEST_F(UafSrcTest, EachStepsFailureIsReportedByItsNumber) {
    failStartAt("snd_pcm_open", 204);
    EXPECT_EQ(nullptr, source->pcmHandle);
    failStartAt("snd_pcm_hw_params_any", 206);
    EXPECT_NE(nullptr, source->pcmHandle);
    failStartAt("snd_pcm_sw_params_current", 208);
    failStartAt("snd_pcm_writei", 214);
    EXPECT_EQ(1, fake_alsa::pcmsOpen());
}

TEST_F(UafSrcTest, AFailedStartReturnsTheStepsCode) {
    fake_alsa::answerAt("snd_pcm_open", 1, -EBUSY);
    EXPECT_EQ(-EBUSY, source->uafStart());
    fake_alsa::answerAt("snd_pcm_hw_params", 1, -EINVAL);
    EXPECT_EQ(-EINVAL, source->uafStart());
    fake_alsa::answerAt("snd_pcm_sw_params", 1, -EIO);
    EXPECT_EQ(-EIO, source->uafStart());
    fake_alsa::answerAt("snd_pcm_writei", 1, -EPIPE);
    EXPECT_EQ(-EPIPE, source->uafStart());
}

TEST_F(UafSrcTest, AnUnsetPcmNameFailsTheOpenAtOnce) {
    source->setDevName(kFifoPath, nullptr);
    EXPECT_EQ(-EINVAL, source->uafStart());
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_open"), IsEmpty());
    EXPECT_THAT(ownLines(), ElementsAre(kSourceLog.debug("init SSRS\n"),
                                        kSourceLog.debug("start, opening (null)\n"),
                                        kSourceLog.error("error at uafStart@204: rc=-22\n")));
}

TEST_F(UafSrcTest, WithoutAFifoNameThereIsNoBufferThread) {
    source->setDevName(nullptr, kPcmName);
    EXPECT_EQ(0, source->uafStart());
    EXPECT_EQ(0, buffersCreated);
    EXPECT_NE(nullptr, source->pcmHandle);
}

TEST_F(UafSrcTest, AStatusThatCannotBeAllocatedFailsTheStart) {
    fake_alsa::answerAt("snd_pcm_status_malloc", 1, -ENOMEM);
    EXPECT_EQ(-1, source->uafStart());
    EXPECT_THAT(ownLines(), ElementsAre(kSourceLog.debug("init SSRS\n"),
                                        kSourceLog.error("failed snd_pcm_status_malloc\n")));
    EXPECT_EQ(1, buffersCreated);
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_open"), IsEmpty());
    EXPECT_EQ(0, source->uafStart());
    EXPECT_EQ(0, source->uafStart());
    EXPECT_EQ(2, fake_alsa::count("snd_pcm_status_malloc"));
}

TEST_F(UafSrcTest, ABufferWithoutMemoryFailsTheStart) {
    for (int successes = 0; successes < 4; ++successes) {
        source = nullptr;
        locks.watchNew({"intf", "ssrs"});
        source = std::make_unique<OpenSource>();
        source->setDevName(kFifoPath, kPcmName);
        forget();
        memory.failAfter(successes);
        EXPECT_EQ(-1, source->uafStart());
        EXPECT_EQ(0, buffersCreated);
        EXPECT_THAT(fake_alsa::calls(), IsEmpty());
    }
    EXPECT_EQ(0, source->uafStart());
}

TEST_F(UafSrcTest, TheBuffersAreAllocatedOnce) {
    start();
    source->uafStop();
    memory.failAfter(0);
    EXPECT_EQ(0, source->uafStart());
}

// ---- The frame buffer --------------------------------------------------------------------------

// The first block or frame then fails and stops the channel, as any failure does.
TEST_F(UafSrcTest, AContextWithoutMemoryIsReportedAndTheStartGoesOn) {
    const size_t contextSize = SSRS_GetContextSize();
    fake_sys::hooks().malloc = [=](size_t size) {
        return size == contextSize ? nullptr : fake_sys::real::malloc(size);
    };
    EXPECT_EQ(0, source->intfUpdate(true));
    EXPECT_THAT(ownLines(),
                ElementsAre(kSourceLog.error("Can't allocate " + std::to_string(contextSize) +
                                             " bytes of memory for SSRS context structure.\n"),
                            kSourceLog.debug("init SSRS\n"),
                            kSourceLog.error("SSRS_InitContext error: 1\n"),
                            kSourceLog.error("SSRS_SetFrameSize error: 1\n"),
                            kSourceLog.error("SSRS_SetQBuff error: 1\n"),
                            kSourceLog.error("SSRS_SetQDepth error: 1\n"),
                            kSourceLog.debug("start, opening hw:1\n")));
}

TEST_F(UafSrcTest, EachFrameBufferStepsFailureIsReportedAndTheStartGoesOn) {
    fake_ssrs::hooks().SSRS_InitContext = [](SSRS_Ctx* ctx) {
        fake_ssrs::real::SSRS_InitContext(ctx);
        return 11;
    };
    fake_ssrs::hooks().SSRS_SetFrameSize = [](SSRS_Ctx*, int32_t) { return 12; };
    fake_ssrs::hooks().SSRS_SetQBuff = [](SSRS_Ctx*, int16_t*, int32_t) { return 13; };
    fake_ssrs::hooks().SSRS_SetQDepth = [](SSRS_Ctx*, int32_t, int32_t) { return 14; };
    EXPECT_EQ(0, source->intfUpdate(true));
    EXPECT_THAT(ownLines(), ElementsAre(kSourceLog.debug("init SSRS\n"),
                                        kSourceLog.error("SSRS_InitContext error: 11\n"),
                                        kSourceLog.error("SSRS_SetFrameSize error: 12\n"),
                                        kSourceLog.error("SSRS_SetQBuff error: 13\n"),
                                        kSourceLog.error("SSRS_SetQDepth error: 14\n"),
                                        kSourceLog.debug("start, opening hw:1\n")));
    EXPECT_EQ(UAFCH_RUNNING, source->state);
}

// However large the last stream's buffer was, each stream begins with the short delay.
TEST_F(UafSrcTest, EachStartBuildsAFreshSmallFrameBuffer) {
    start();
    source->uafStop();
    watchSetUp();
    forget();
    EXPECT_EQ(0, source->uafStart());
    EXPECT_THAT(journal, ElementsAre("init", "frame 240", "storage 960", "depth 480-720",
                                     "create buffer", "snd_pcm_open(hw:1, PLAYBACK, 0)"));
}

// ---- Stop --------------------------------------------------------------------------------------

TEST_F(UafSrcTest, AStopJoinsTheThreadThenClosesThePcmAndKeepsTheFifo) {
    start();
    openFifo();
    EXPECT_EQ(0, source->uafStop());
    EXPECT_THAT(journal, ElementsAre("signal", "join"));
    EXPECT_THAT(fake_alsa::calls(), ElementsAre("snd_pcm_drop(pcm0)", "snd_pcm_close(pcm0)"));
    EXPECT_THAT(fake_log::lines(), ElementsAre(kSourceLog.debug("stopping buffer thread\n"),
                                               kSourceLog.debug("stop, close hw:1\n")));
    EXPECT_EQ(nullptr, source->pcmHandle);
    EXPECT_TRUE(source->fifo.isOpen());
    EXPECT_EQ(1, fake_alsa::statusObjects());
    forget();
    EXPECT_EQ(0, source->uafStop());
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// An unbind clears the names without waiting for the stop.
TEST_F(UafSrcTest, AStopToleratesClearedNames) {
    start();
    source->setDevName(nullptr, nullptr);
    EXPECT_EQ(0, source->uafStop());
    EXPECT_THAT(fake_log::lines(), ElementsAre(kSourceLog.debug("stopping buffer thread\n"),
                                               kSourceLog.debug("stop, close (null)\n")));
}

TEST_F(UafSrcTest, AStopFreesTheFrameBuffer) {
    SSRS_Ctx* context = nullptr;
    fake_ssrs::hooks().SSRS_InitContext = [&](SSRS_Ctx* ctx) {
        context = ctx;
        return fake_ssrs::real::SSRS_InitContext(ctx);
    };
    start();
    int freed = 0;
    fake_sys::hooks().free = [&](void* memory) {
        freed += memory == context;
        fake_sys::real::free(memory);
    };
    source->uafStop();
    fake_sys::hooks().free = nullptr;
    EXPECT_EQ(1, freed);
}

}  // namespace
}  // namespace uafd
