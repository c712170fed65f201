// SPDX-License-Identifier: Apache-2.0
// The source channel's buffer thread: its creation, what a failed start leaves of it for the next
// start, and a stop that comes before it has run.
#include <cerrno>
#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "channel/uaf_src.h"
#include "tests/unit/source_bench.h"

namespace uafd {
namespace {

using fake_log::kSourceLog;
using namespace source_bench;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::Pair;

using UafSrcThreadTest = source_bench::Test;

TEST_F(UafSrcThreadTest, TheBufferThreadRunsAtFifo58) {
    EXPECT_EQ(0, source->uafStart());
    EXPECT_EQ(SCHED_FIFO, threads.created.back().policy);
    EXPECT_EQ(58, threads.created.back().priority);
}

// Sound at an ordinary priority is better than none.
TEST_F(UafSrcThreadTest, TheBufferThreadIsCreatedWithWhatIsLeftOfItsAttributes) {
    fake_sys::hooks().pthread_attr_setschedpolicy = [](pthread_attr_t*, int) { return EINVAL; };
    EXPECT_EQ(0, source->uafStart());
    EXPECT_THAT(ownLines(), Contains(kSourceLog.error("unable to setschedpolicy\n")));
    source->uafStop();
    fake_sys::hooks().pthread_attr_setschedpolicy = nullptr;
    fake_sys::hooks().pthread_attr_setschedparam = [](pthread_attr_t*, const sched_param*) {
        return EINVAL;
    };
    forget();
    EXPECT_EQ(0, source->uafStart());
    EXPECT_THAT(ownLines(), Contains(kSourceLog.error("unable to set thread priority\n")));
    EXPECT_EQ(2, buffersCreated);
}

// The worker finds no PCM and requests the stop, so that the app hears of the off as well.
TEST_F(UafSrcThreadTest, WithoutItsBufferThreadTheChannelStartsAndStopsItself) {
    createResult = EAGAIN;
    createErrno = ENOMEM;  // the one that the line shows
    EXPECT_EQ(0, source->intfUpdate(true));
    EXPECT_EQ(UAFCH_RUNNING, source->state);
    EXPECT_EQ(nullptr, source->pcmHandle);
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Pair(2U, 1U)));
    EXPECT_THAT(ownLines(),
                ElementsAre(kSourceLog.debug("init SSRS\n"),
                            kSourceLog.error("pthread_create: <12:Cannot allocate memory>\n")));
    forget();
    runWorker();
    EXPECT_EQ(UAFCH_STOPPED, source->state);
    EXPECT_THAT(fake_alsa::calls(), IsEmpty());
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Pair(2U, 0U)));
    EXPECT_THAT(ownLines(), ElementsAre(kSourceLog.debug("exit, loopcnt=0, pcmWrite 0\n")));
    createResult = 0;
    start();
    EXPECT_NE(nullptr, source->pcmHandle);
    EXPECT_EQ(1, buffersCreated);
}

// A failed start undoes nothing, and a second thread would read from the same FIFO.
TEST_F(UafSrcThreadTest, AStartGoesOnWithTheThreadThatAFailedStartLeft) {
    failStartAt("snd_pcm_open", 204);
    failStartAt("snd_pcm_open", 204);
    watchSetUp();
    forget();
    EXPECT_EQ(0, source->intfUpdate(true));
    EXPECT_EQ(1, buffersCreated);
    EXPECT_THAT(journal, ElementsAre("lock intf", "snd_pcm_open(hw:1, PLAYBACK, 0)", "message 2,1",
                                     "create worker", "unlock intf"));
}

// The start before failed after the open, and undid nothing.
TEST_F(UafSrcThreadTest, AStartThatFindsThePcmOpenClosesAndStartsAfresh) {
    failStartAt("snd_pcm_writei", 214);
    watchSetUp();
    forget();
    EXPECT_EQ(0, source->intfUpdate(true));
    EXPECT_THAT(journal,
                ElementsAre("lock intf", "signal", "join", "init", "frame 240", "storage 960",
                            "depth 480-720", "create buffer", "snd_pcm_open(hw:1, PLAYBACK, 0)",
                            "message 2,1", "create worker", "unlock intf"));
    EXPECT_THAT(
        ownLines(),
        ElementsAre(kSourceLog.error("start, audio still open, trying to close\n"),
                    kSourceLog.debug("stopping buffer thread\n"),
                    kSourceLog.debug("stop, close hw:1\n"), kSourceLog.debug("init SSRS\n")));
    EXPECT_THAT(fake_alsa::calls(), IsSupersetOf({"snd_pcm_drop(pcm0)", "snd_pcm_close(pcm0)"}));
    EXPECT_EQ(2, buffersCreated);
    EXPECT_EQ(1, fake_alsa::pcmsOpen());
    EXPECT_EQ(fake_alsa::pcm(1), source->pcmHandle);
}

TEST_F(UafSrcThreadTest, AStillOpenPcmWhoseNewThreadFailsIsClosedAllTheSame) {
    failStartAt("snd_pcm_writei", 214);
    createResult = EAGAIN;
    EXPECT_EQ(0, source->intfUpdate(true));
    EXPECT_EQ(nullptr, source->pcmHandle);
    EXPECT_EQ(0, fake_alsa::pcmsOpen());
    runWorker();
    EXPECT_EQ(UAFCH_STOPPED, source->state);
}

// A remaining thread uses the frame buffer, or finds none: a start must not build one under it.
TEST_F(UafSrcThreadTest, AStartBuildsNoFrameBufferUnderAThreadThatIsLeft) {
    const size_t contextSize = SSRS_GetContextSize();
    fake_sys::hooks().malloc = [=](size_t size) {
        return size == contextSize ? nullptr : fake_sys::real::malloc(size);
    };
    failStartAt("snd_pcm_open", 204);
    fake_sys::hooks().malloc = nullptr;
    watchSetUp();
    forget();
    EXPECT_EQ(0, source->intfUpdate(true));
    EXPECT_EQ(0, count("init"));
    runWorker();
    EXPECT_THAT(ownLines(), Contains(kSourceLog.error("SSRS_Read error: 1\n")).Times(4));
    EXPECT_EQ(UAFCH_STOPPED, source->state);
    forget();
    EXPECT_EQ(0, source->intfUpdate(true));
    EXPECT_EQ(1, count("init"));
}

// The thread reads the names without a lock.
TEST_F(UafSrcThreadTest, NamesStayAsLongAsABufferThreadIsLeft) {
    std::vector<const char*> watched;
    fake_sys::hooks().strdup = [&](const char* text) {
        watched.push_back(fake_sys::real::strdup(text));
        return const_cast<char*>(watched.back());
    };
    std::vector<const void*> freed;
    fake_sys::hooks().free = [&](void* memory) {
        freed.push_back(memory);
        fake_sys::real::free(memory);
    };
    char fifo[] = "/tmp/fifo0";
    char pcm[] = "hw:0";
    const auto replaceNames = [&] {  // with different ones
        ++fifo[strlen(fifo) - 1];
        ++pcm[strlen(pcm) - 1];
        source->setDevName(fifo, pcm);
    };
    replaceNames();
    createResult = EAGAIN;
    EXPECT_EQ(0, source->uafStart());
    replaceNames();
    EXPECT_THAT(freed, IsSupersetOf({watched[0], watched[1]}));
    freed.clear();
    createResult = 0;
    failStartAt("snd_pcm_open", 204);
    replaceNames();
    EXPECT_THAT(freed, Not(Contains(watched[2])));
    EXPECT_STREQ("/tmp/fifo2", watched[2]);
    EXPECT_EQ(0, source->uafStop());
    replaceNames();
    EXPECT_THAT(freed, IsSupersetOf({watched[2], watched[3], watched[4], watched[5]}));
    fake_sys::reset();
}

// The pass would wait for the app, and the stop for the pass.
TEST_F(UafSrcThreadTest, AStopBeforeTheThreadRanEndsItBeforeItsFirstPass) {
    start();
    source->uafStop();
    EXPECT_THAT(journal, ElementsAre("signal", "join"));
    forget();
    runBufferThread();
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kSourceLog.debug("enter buffer loop\n"),
                            kSourceLog.debug("exit buffer loop, loopcnt=0, fifoRead 0\n")));
}

TEST_F(UafSrcThreadTest, AThreadRunsAgainAfterAStopThatCameBeforeIt) {
    start();
    source->uafStop();
    runBufferThread();
    ASSERT_EQ(0, source->uafStart());
    stopAfterBlocks(2);
    forget();
    runBufferThread();
    EXPECT_THAT(fake_log::lines(),
                Contains(kSourceLog.debug("exit buffer loop, loopcnt=2, fifoRead 3840\n")));
}

}  // namespace
}  // namespace uafd
