// SPDX-License-Identifier: Apache-2.0
// Both channels with their real threads, locks and FIFOs, against a companion app that comes and
// goes.
#include "tests/unit/channel_lifecycle.h"

#include <csignal>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace uafd {
namespace {

using fake_log::kChannelLog;
using fake_log::kSinkLog;
using fake_log::kSourceLog;
using ::testing::ElementsAre;
using ::testing::Pair;

// ---- Storms ------------------------------------------------------------------------------------

TEST_F(ChannelLifecycleTest, RequestsInAnyOrderKeepTheMessagesAlternating) {
    const AppWriter writer(sourceFifo, 5);
    const AppReader reader(sinkFifo);
    for (unsigned round = 0; round < 300; ++round) {
        // Tries every pattern of six requests that ends with an off.
        for (unsigned bit = 0; bit < 5; ++bit) {
            const bool on = (round >> bit) % 2 == 0;
            source.intfUpdate(on);
            sink.intfUpdate(!on);
        }
        source.intfUpdate(false);
        sink.intfUpdate(false);
        if (round % 2 == 0) {
            ASSERT_TRUE(eventually([&] { return source.hasStopped() && sink.hasStopped(); }));
        }
    }
    ASSERT_TRUE(eventually([&] { return source.hasStopped() && sink.hasStopped(); }));
    expectAlternatingMessages();
}

// Mainly for the sanitizers, which report the use of a freed name.
TEST_F(ChannelLifecycleTest, NamesAreReplacedAndClearedWhileThreadsReadThem) {
    auto writer = std::make_unique<AppWriter>(sourceFifo, 5);
    auto reader = std::make_unique<AppReader>(sinkFifo);
    for (int round = 0; round < 200; ++round) {
        source.intfUpdate(true);
        sink.intfUpdate(true);
        for (int i = 0; i < 5; ++i) {
            source.setDevName(nullptr, nullptr);
            sink.setDevName(nullptr, nullptr);
            std::this_thread::yield();
            setNames();
        }
        // The app leaves and comes back: both channels look the names up again.
        if (round % 20 == 0) {
            writer = nullptr;
            reader = nullptr;
            writer = std::make_unique<AppWriter>(sourceFifo, 5);
            reader = std::make_unique<AppReader>(sinkFifo);
        }
        source.intfUpdate(false);
        sink.intfUpdate(false);
    }
    ASSERT_TRUE(eventually([&] { return source.hasStopped() && sink.hasStopped(); }));
    expectAlternatingMessages();
}

// ---- Within the debounce -----------------------------------------------------------------------

// Lets a channel's worker make its passes one by one: the worker stops at the gate in each pass,
// and a test lets it through and waits until it is back.
class PassGate {
  public:
    // The worker calls this in each pass.
    void arrive() {
        std::unique_lock<std::mutex> lock(mutex);
        ++arrivals;
        changed.notify_all();
        changed.wait(lock, [this] { return isOpen || permits > 0; });
        permits -= isOpen ? 0 : 1;
    }

    // The test calls this: lets `passes` passes begin and waits until the worker is back at the
    // gate; 0 waits for its first arrival.
    void letThrough(int passes) {
        std::unique_lock<std::mutex> lock(mutex);
        permits += passes;
        expected += passes;
        changed.notify_all();
        changed.wait(lock, [this] { return arrivals >= expected; });
    }

    // The test calls this: from now on nobody has to stop.
    void open() {
        const std::lock_guard<std::mutex> lock(mutex);
        isOpen = true;
        changed.notify_all();
    }

    // The test calls this while there is no worker: closes the gate and forgets all passes.
    void reset() {
        const std::lock_guard<std::mutex> lock(mutex);
        arrivals = 0;
        expected = 1;
        permits = 0;
        isOpen = false;
    }

  private:
    std::mutex mutex;
    std::condition_variable changed;
    int arrivals = 0;
    int expected = 1;
    int permits = 0;
    bool isOpen = false;
};

TEST_F(ChannelLifecycleTest, AnOnCancelsAStopAtEachCount) {
    PassGate gate;
    atWait = [&] { gate.arrive(); };
    const AppWriter writer(sourceFifo, 5);
    ASSERT_EQ(0, source.intfUpdate(true));
    gate.letThrough(0);
    for (int passes = 0; passes <= 3; ++passes) {
        fake_log::clear();
        ASSERT_EQ(0, source.intfUpdate(false));
        gate.letThrough(passes);
        EXPECT_EQ(UAFCH_STOPPING, source.currentState());
        ASSERT_EQ(0, source.intfUpdate(true));
        EXPECT_EQ(1, fake_log::count(
                         kChannelLog.debug("stopDelayCnt = " + std::to_string(passes) + "\n")));
        gate.letThrough(5);
        EXPECT_EQ(UAFCH_RUNNING, source.currentState());
    }
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Pair(kSourceMessage, 1U)));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_close"));
    source.intfUpdate(false);
    gate.letThrough(3);
    EXPECT_EQ(UAFCH_STOPPING, source.currentState());
    gate.open();
    EXPECT_TRUE(eventually([&] { return source.hasStopped(); }));
}

// ---- A stop and the buffer thread --------------------------------------------------------------

// The buffer thread's off request needs the lock that the stop holds while it joins that thread.
TEST_F(ChannelLifecycleTest, AFifoThatFailsDuringTheStopDoesNotDeadlock) {
    std::atomic<bool> opening{false};
    std::atomic<int> stops{0};  // rounds; each stop holds the lock and waits for the thread
    const auto stopWaits = [&] {
        return fake_log::count(kSourceLog.debug("stopping buffer thread\n")) > stops.load();
    };
    fake_sys::hooks().open = [&](const char* path, int flags) {
        opening = true;
        const int fd = fake_sys::real::open(path, flags);  // returns on a signal
        errno = stopWaits() ? ENOENT : EINTR;
        return fd;
    };
    for (; stops < 20; ++stops) {
        opening = false;
        ASSERT_EQ(0, source.intfUpdate(true));
        ASSERT_TRUE(eventually([&] { return opening.load(); }));
        ASSERT_EQ(0, source.intfUpdate(false));
        ASSERT_TRUE(eventually([&] { return source.hasStopped(); }));
    }
    EXPECT_EQ(20, fake_log::count(kSourceLog.error("failed to open " + sourceFifo + "\n")));
    expectAlternatingMessages();
}

TEST_F(ChannelLifecycleTest, AFifoThatDisappearsStopsTheChannelAndItWorksAgain) {
    for (int round = 0; round < 20; ++round) {
        lastPlayed = 0;
        {
            const AppWriter writer(sourceFifo, 5);
            ASSERT_EQ(0, source.intfUpdate(true));
            ASSERT_TRUE(eventually([&] { return lastPlayed == 5; }));
            ASSERT_EQ(0, unlink(sourceFifo.c_str()));
        }
        ASSERT_TRUE(eventually([&] { return source.hasStopped(); }));
        ASSERT_EQ(0, mkfifo(sourceFifo.c_str(), 0600));
    }
    expectAlternatingMessages();
}

// The thread must not run before the stop waits for it.
TEST_F(ChannelLifecycleTest, AStopEndsABufferThreadThatHasNotRunYet) {
    struct Delayed {
        void* (*entry)(void*);
        void* argument;
        std::atomic<bool>* mayRun;
        static void* run(void* self) {
            const std::unique_ptr<Delayed> delayed(static_cast<Delayed*>(self));
            EXPECT_TRUE(eventually([&] { return delayed->mayRun->load(); }));
            return delayed->entry(delayed->argument);
        }
    };
    std::atomic<bool> mayRun{false};
    fake_sys::hooks().pthread_create = [&](pthread_t* id, const pthread_attr_t* attributes,
                                           void* (*entry)(void*), void* argument) {
        if (entry == &UafCh::ChThread) {
            return fake_sys::real::pthread_create(id, attributes, entry, argument);
        }
        return fake_sys::real::pthread_create(id, attributes, Delayed::run,
                                              new Delayed{entry, argument, &mayRun});
    };
    fake_sys::hooks().pthread_kill = [&](pthread_t id, int number) {
        mayRun = true;
        return fake_sys::real::pthread_kill(id, number);
    };
    // There is no app: a pass would wait for one for ever while it opens the FIFO.
    ASSERT_EQ(0, source.intfUpdate(true));
    ASSERT_EQ(0, source.intfUpdate(false));
    ASSERT_TRUE(eventually([&] { return source.hasStopped(); }));
    EXPECT_EQ(1, fake_log::count(kSourceLog.debug("exit buffer loop, loopcnt=0, fifoRead 0\n")));
    const AppWriter writer(sourceFifo, 5);
    ASSERT_EQ(0, source.intfUpdate(true));
    EXPECT_TRUE(eventually([&] { return lastPlayed == 5; }));
    source.intfUpdate(false);
    EXPECT_TRUE(eventually([&] { return source.hasStopped(); }));
}

// ---- What a failed start leaves ----------------------------------------------------------------

// A second buffer thread would read from the same FIFO.
TEST_F(ChannelLifecycleTest, AThreadLeftByAFailedStartIsTheOneThatGoesOn) {
    std::atomic<int> buffers{0};
    fake_sys::hooks().pthread_create = [&](pthread_t* id, const pthread_attr_t* attributes,
                                           void* (*entry)(void*), void* argument) {
        buffers += entry != &UafCh::ChThread;
        return fake_sys::real::pthread_create(id, attributes, entry, argument);
    };
    // Without its FIFO the remaining thread fails again and again.
    ASSERT_EQ(0, unlink(sourceFifo.c_str()));
    fake_alsa::answerAlways("snd_pcm_open", -ENODEV);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(-1, source.intfUpdate(true));
        EXPECT_EQ(UAFCH_STOPPED, source.currentState());
    }
    ASSERT_TRUE(eventually([&] {
        return fake_log::count(kSourceLog.error("failed to open " + sourceFifo + "\n")) >= 3;
    }));
    fake_alsa::stopAnswering("snd_pcm_open");
    ASSERT_EQ(0, mkfifo(sourceFifo.c_str(), 0600));
    const AppWriter writer(sourceFifo, 5);
    ASSERT_TRUE(eventually([&] { return writer.isOpen(); }));
    ASSERT_EQ(0, source.intfUpdate(true));
    EXPECT_TRUE(eventually([&] { return lastPlayed == 5; }));
    EXPECT_EQ(1, buffers);
    source.intfUpdate(false);
    EXPECT_TRUE(eventually([&] { return source.hasStopped(); }));
}

TEST_F(ChannelLifecycleTest, APcmLeftOpenIsClosedAndTheMicrophoneWorks) {
    const AppWriter writer(sourceFifo, 5);
    for (const char* step : {"snd_pcm_hw_params", "snd_pcm_sw_params", "snd_pcm_writei"}) {
        lastPlayed = 0;
        fake_alsa::answerAt(step, 1, -EIO);
        EXPECT_EQ(-1, source.intfUpdate(true));
        ASSERT_EQ(0, source.intfUpdate(true));
        EXPECT_EQ(1, fake_alsa::pcmsOpen());
        EXPECT_TRUE(eventually([&] { return lastPlayed == 5; }));
        source.intfUpdate(false);
        ASSERT_TRUE(eventually([&] { return source.hasStopped(); }));
    }
    EXPECT_EQ(3, fake_log::count(kSourceLog.error("start, audio still open, trying to close\n")));
}

// ---- The app comes and goes --------------------------------------------------------------------

TEST_F(ChannelLifecycleTest, TheAppClosesAndReopensItsMicrophoneFifo) {
    ASSERT_EQ(0, source.intfUpdate(true));
    for (int16_t value = 1; value <= 20; ++value) {
        const AppWriter writer(sourceFifo, value);
        ASSERT_TRUE(eventually([&] { return lastPlayed == value; }));
    }
    // The last writer has gone, so there is silence.
    ASSERT_TRUE(eventually([&] { return lastPlayed == 0; }));
    EXPECT_EQ(UAFCH_RUNNING, source.currentState());
    source.intfUpdate(false);
    EXPECT_TRUE(eventually([&] { return source.hasStopped(); }));
    EXPECT_EQ(0, fake_log::count(kChannelLog.debug("intfUpdate to 0, current state 2\n")));
}

TEST_F(ChannelLifecycleTest, TheAppClosesAndReopensItsSpeakerFifo) {
    ASSERT_EQ(0, sink.intfUpdate(true));
    const std::string opened = sinkFifo + " opened buffer size 4096\n";
    const std::string closed = "closing " + sinkFifo + ", failed to write rc=-1, expect 960\n";
    for (int round = 1; round <= 20; ++round) {
        {
            const AppReader reader(sinkFifo);
            ASSERT_TRUE(
                eventually([&] { return fake_log::count(kSinkLog.debug(opened)) == round; }));
        }
        ASSERT_TRUE(eventually([&] { return fake_log::count(kSinkLog.debug(closed)) == round; }));
    }
    EXPECT_EQ(UAFCH_RUNNING, sink.currentState());
    const AppReader reader(sinkFifo);
    sink.intfUpdate(false);
    EXPECT_TRUE(eventually([&] { return sink.hasStopped(); }));
    EXPECT_EQ(20, fake_log::count(kSinkLog.error("handler: 13\n")));
}

TEST_F(ChannelLifecycleTest, AnOffIsTakenWhileTheSinkWaitsForTheApp) {
    ASSERT_EQ(0, sink.intfUpdate(true));
    ASSERT_TRUE(
        eventually([] { return fake_log::count(kSinkLog.error("synch startup failed")) == 1; }));
    ASSERT_EQ(0, sink.intfUpdate(false));
    EXPECT_EQ(UAFCH_STOPPING, sink.currentState());
    const AppReader reader(sinkFifo);
    EXPECT_TRUE(eventually([&] { return sink.hasStopped(); }));
}

// ---- A FIFO that the app replaces while a thread waits to open it -------------------------------

TEST_F(ChannelLifecycleTest, TheNextEventLetsTheBufferThreadOutOfAFifoThatWasReplaced) {
    ASSERT_EQ(0, source.intfUpdate(true));
    replaceOnceWaitedOn(sourceFifo);
    const AppWriter writer(sourceFifo, 5);
    ASSERT_EQ(0, source.intfUpdate(false));
    ASSERT_TRUE(eventually([&] { return source.hasStopped(); }));
    ASSERT_EQ(0, source.intfUpdate(true));
    EXPECT_TRUE(eventually([&] { return lastPlayed == 5; }));
    source.intfUpdate(false);
    EXPECT_TRUE(eventually([&] { return source.hasStopped(); }));
}

TEST_F(ChannelLifecycleTest, TheNextEventLetsTheSinkOutOfAFifoThatWasReplaced) {
    ASSERT_EQ(0, sink.intfUpdate(true));
    replaceOnceWaitedOn(sinkFifo);
    const AppReader reader(sinkFifo);
    ASSERT_EQ(0, sink.intfUpdate(false));
    ASSERT_TRUE(eventually([&] { return sink.hasStopped(); }));
    ASSERT_EQ(0, sink.intfUpdate(true));
    sink.intfUpdate(false);
    EXPECT_TRUE(eventually([&] { return sink.hasStopped(); }));
}

// ---- Frame-buffer errors -----------------------------------------------------------------------

// Each error keeps the frame buffer's lock during a stop request; the other thread needs both
// locks.
TEST_F(ChannelLifecycleTest, FrameBufferErrorsOnEitherThreadStopTheChannel) {
    const AppWriter writer(sourceFifo, 5);
    std::atomic<int> faults{0};  // 1: writes fail, 2: reads fail
    fake_ssrs::hooks().SSRS_Write = [&](SSRS_Ctx* ctx, const int16_t* data, int32_t n) {
        return (faults & 1) != 0 ? SSRS_BAD_PARAMETER : fake_ssrs::real::SSRS_Write(ctx, data, n);
    };
    fake_ssrs::hooks().SSRS_Read = [&](SSRS_Ctx* ctx, int16_t* out) {
        return (faults & 2) != 0 ? SSRS_NULL_DATA : fake_ssrs::real::SSRS_Read(ctx, out);
    };
    for (int round = 0; round < 30; ++round) {
        faults = 0;
        lastPlayed = 0;
        ASSERT_EQ(0, source.intfUpdate(true));
        ASSERT_TRUE(eventually([&] { return lastPlayed == 5; }));
        faults = 1 + round % 3;
        ASSERT_TRUE(eventually([&] { return source.hasStopped(); }));
    }
    expectAlternatingMessages();
}

TEST_F(ChannelLifecycleTest, ACardThatIsPulledLeavesChannelsThatWorkAgain) {
    const AppWriter writer(sourceFifo, 5);
    const AppReader reader(sinkFifo);
    for (int round = 0; round < 20; ++round) {
        lastPlayed = 0;
        ASSERT_EQ(0, source.intfUpdate(true));
        ASSERT_EQ(0, sink.intfUpdate(true));
        ASSERT_TRUE(eventually([&] { return lastPlayed == 5; }));
        fake_alsa::answerAlways("snd_pcm_wait", -ENODEV);
        for (int i = 0; i < 100; ++i) {
            std::this_thread::yield();
        }
        EXPECT_EQ(UAFCH_RUNNING, source.currentState());
        source.intfUpdate(false);
        sink.intfUpdate(false);
        source.setDevName(nullptr, nullptr);
        sink.setDevName(nullptr, nullptr);
        ASSERT_TRUE(eventually([&] { return source.hasStopped() && sink.hasStopped(); }));
        fake_alsa::stopAnswering("snd_pcm_wait");
        setNames();
    }
    expectAlternatingMessages();
}

}  // namespace
}  // namespace uafd
