// SPDX-License-Identifier: Apache-2.0
// The sink channel's FIFO: opened by the first write, and reopened after a write that failed.
#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/unit/sink_bench.h"

namespace uafd {
namespace {

using fake_alsa::capturedSample;
using fake_log::kSinkLog;
using sink_bench::kPeriodSamples;
using sink_bench::Period;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

using UafSnkFifoTest = sink_bench::Test;

TEST_F(UafSnkFifoTest, FirstWriteOpensTheFifo) {
    run(4);
    EXPECT_THAT(events, ElementsAre("open /tmp/usbAudioFifoRx " + std::to_string(O_WRONLY),
                                    "set pipe 960", "get pipe", "close 77"));
    EXPECT_THAT(log(),
                Contains(kSinkLog.debug("/tmp/usbAudioFifoRx opened buffer size 4096\n")).Times(1));
}

TEST_F(UafSnkFifoTest, FifoThatDoesNotOpenStopsTheChannel) {
    fifo.openResult = -1;
    runUntilStopped();
    EXPECT_EQ(4, pass);
    EXPECT_THAT(log(), Contains(kSinkLog.error("failed to open /tmp/usbAudioFifoRx\n")).Times(4));
    EXPECT_THAT(events, SizeIs(4));
    EXPECT_THAT(written, IsEmpty());
    EXPECT_EQ(kSinkLog.debug("exit, loopcnt=0, pcmRead 960, fifoWrite 0\n"), log().back());
}

// Descriptor 0 is standard input.
TEST_F(UafSnkFifoTest, DescriptorZeroCountsAsClosed) {
    fifo.openResult = 0;
    run(3);
    EXPECT_EQ(3, std::count(events.begin(), events.end(), "set pipe 960"));
    EXPECT_THAT(events, Not(Contains("close 0")));
    EXPECT_THAT(written, SizeIs(3));
}

TEST_F(UafSnkFifoTest, WriteThatIsNotWholeClosesTheFifoAndLosesThePeriod) {
    for (const ssize_t result : {ssize_t{480}, ssize_t{-1}, ssize_t{0}}) {
        fake_log::clear();
        events.clear();
        written.clear();
        onWrite = [&](int number) { return number == 2 ? result : 960; };
        run(5);
        EXPECT_THAT(log(),
                    Contains(kSinkLog.debug("closing /tmp/usbAudioFifoRx, failed to write rc=" +
                                            std::to_string(result) + ", expect 960\n"))
                        .Times(1));
        EXPECT_THAT(events, ElementsAre("open /tmp/usbAudioFifoRx 1", "set pipe 960", "get pipe",
                                        "close 77", "open /tmp/usbAudioFifoRx 1", "set pipe 960",
                                        "get pipe", "close 77"));
        EXPECT_THAT(written, SizeIs(5));
        EXPECT_EQ(kSinkLog.debug("exit, loopcnt=5, pcmRead 1200, fifoWrite 3840\n"), log().back());
    }
}

TEST_F(UafSnkFifoTest, WriteThatASignalInterruptsIsMadeAgain) {
    onWrite = [](int number) {
        errno = EINTR;
        return number == 2 ? -1 : 960;
    };
    run(4);
    EXPECT_THAT(written, SizeIs(5));
    EXPECT_EQ(written[1], written[2]);
    EXPECT_THAT(events,
                ElementsAre("open /tmp/usbAudioFifoRx 1", "set pipe 960", "get pipe", "close 77"));
    EXPECT_EQ(kSinkLog.debug("exit, loopcnt=4, pcmRead 960, fifoWrite 3840\n"), log().back());
}

TEST_F(UafSnkFifoTest, FifoWithoutANameFailsToOpen) {
    onWrite = [this](int) {
        snk->setDevName(nullptr, nullptr);
        return -1;
    };
    run(4);
    EXPECT_THAT(
        log(),
        Contains(kSinkLog.debug("closing (null), failed to write rc=-1, expect 960\n")).Times(1));
    EXPECT_THAT(log(), Contains(kSinkLog.error("failed to open (null)\n")).Times(3));
    EXPECT_THAT(written, SizeIs(1));
}

// A real pipe, whose reader goes away in the second pass, and the real signal.
TEST_F(UafSnkFifoTest, LostReaderCostsOnePeriodAndNotTheDaemon) {
    struct sigaction before {};
    ASSERT_EQ(0, fake_sys::real::sigaction(SIGPIPE, nullptr, &before));
    int first[2];
    int second[2];
    ASSERT_EQ(0, pipe(first));
    ASSERT_EQ(0, pipe(second));
    auto& hooks = fake_sys::hooks();
    hooks.sigaction = nullptr;
    hooks.close = nullptr;
    hooks.write = nullptr;
    hooks.open = [&](const char*, int) {
        events.push_back("open");
        fifo.openResult = events.size() == 1 ? first[1] : second[1];
        return fifo.openResult;
    };
    hooks.fcntl = nullptr;
    onPass = [&](int number) {
        if (number == 2) {
            fake_sys::real::close(first[0]);
        }
    };
    run(4);
    EXPECT_THAT(log(), Contains(kSinkLog.error("handler: 13\n")).Times(1));
    EXPECT_THAT(
        log(),
        Contains(kSinkLog.debug("closing /tmp/usbAudioFifoRx, failed to write rc=-1, expect 960\n"))
            .Times(1));
    EXPECT_THAT(events, SizeIs(2));
    Period received(3 * kPeriodSamples);
    EXPECT_EQ(1920, fake_sys::real::read(second[0], received.data(), 3 * 960));
    received.resize(2 * kPeriodSamples);
    Period expected = stereoFrom(480);
    const Period last = stereoFrom(720);
    expected.insert(expected.end(), last.begin(), last.end());
    EXPECT_EQ(expected, received);
    fake_sys::real::close(second[0]);
    fake_sys::real::sigaction(SIGPIPE, &before, nullptr);
}

// A real FIFO and a real worker: its first write waits in the open.
TEST_F(UafSnkFifoTest, WorkerCapturesNothingWhileItWaitsForTheApp) {
    const std::string path = testing::TempDir() + "uaf_snk_test." + std::to_string(getpid());
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    std::promise<void> opening;
    pthread_t worker{};
    auto& hooks = fake_sys::hooks();
    hooks.close = nullptr;
    hooks.write = nullptr;
    hooks.fcntl = nullptr;
    hooks.open = [&](const char* name, int flags) {
        opening.set_value();
        return fake_sys::real::open(name, flags);
    };
    hooks.pthread_create = [&](pthread_t* id, const pthread_attr_t* attributes,
                               void* (*entry)(void*), void* argument) {
        const int rc = fake_sys::real::pthread_create(&worker, attributes, entry, argument);
        *id = worker;
        return rc;
    };
    fake_alsa::hooks().before = nullptr;
    snk->setDevName(path.c_str(), "hw:1");
    ASSERT_EQ(0, snk->intfUpdate(true));
    opening.get_future().wait();
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_readi"));

    const int app = fake_sys::real::open(path.c_str(), O_RDONLY);
    ASSERT_GE(app, 0);
    Period received;
    int16_t chunk[kPeriodSamples];
    for (ssize_t bytes; (bytes = fake_sys::real::read(app, chunk, sizeof chunk)) > 0;) {
        received.insert(received.end(), chunk, chunk + bytes / 2);
        if (received.size() >= 10 * kPeriodSamples) {
            snk->intfUpdate(false);
        }
    }
    fake_sys::real::pthread_join(worker, nullptr);
    fake_sys::real::close(app);
    fake_sys::real::unlink(path.c_str());
    ASSERT_GE(received.size(), 10 * kPeriodSamples);
    for (size_t i = 0; i < received.size(); ++i) {
        ASSERT_EQ(capturedSample(i / 2), received[i]) << i;
    }
}

}  // namespace
}  // namespace uafd
