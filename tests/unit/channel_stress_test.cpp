// SPDX-License-Identifier: Apache-2.0
// Both channels with their real threads, locks and FIFOs: an event loop that sends any event, apps
// that do anything with their FIFOs, and a card, a frame buffer and a system that fail at any step.
// Afterwards both channels stream as if nothing had happened. UAFD_STRESS_EVENTS makes the test
// longer, UAFD_STRESS_SEED changes it.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "tests/unit/channel_lifecycle.h"
#include "tests/unit/wild_app.h"

namespace uafd {
namespace {

constexpr unsigned kEvents = 10000;

// What may go wrong, one bit each.
constexpr unsigned kFrameBufferWrites = 1;
constexpr unsigned kFrameBufferReads = 2;
constexpr unsigned kWaits = 4;
constexpr unsigned kThreads = 8;
constexpr unsigned kAllFaults = 16;

constexpr const char* kStartSteps[] = {"snd_pcm_open", "snd_pcm_hw_params", "snd_pcm_sw_params",
                                       "snd_pcm_writei", "snd_pcm_start"};

unsigned fromEnvironment(const char* name, unsigned otherwise) {
    const char* const value = getenv(name);
    return value != nullptr ? static_cast<unsigned>(strtoul(value, nullptr, 10)) : otherwise;
}

// How many entries "fd" or "task" of this process has.
long entriesOf(const char* folder) {
    const std::filesystem::directory_iterator entries(std::string("/proc/self/") + folder);
    return std::distance(begin(entries), end(entries));
}

class ChannelStressTest : public ChannelLifecycleTest {
  protected:
    void SetUp() override {
        ChannelLifecycleTest::SetUp();
        std::cout << "seed " << seed << std::endl;
        fake_alsa::stopRecording();
        hookFaults();
        fake_log::onLine() = [this](const fake_log::Line& line) {
            stops += line.text == "stopping buffer thread\n";
            failedOpens += line.text.rfind("failed to open", 0) == 0;
        };
        auto read = fake_sys::real::read;
        fake_sys::hooks().read = [this, read](int fd, void* block, size_t size) {
            const ssize_t got = read(fd, block, size);
            blocksRead += got == 1920;
            return got;
        };
        auto write = fake_sys::real::write;
        fake_sys::hooks().write = [this, write](int fd, const void* block, size_t size) {
            const ssize_t done = write(fd, block, size);
            periodsWritten += done == 960;
            return done;
        };
    }

    void hookFaults() {
        fake_ssrs::hooks().SSRS_Write = [this](SSRS_Ctx* ctx, const int16_t* samples, int32_t n) {
            return fails(kFrameBufferWrites) ? SSRS_BAD_PARAMETER
                                             : fake_ssrs::real::SSRS_Write(ctx, samples, n);
        };
        fake_ssrs::hooks().SSRS_Read = [this](SSRS_Ctx* ctx, int16_t* frame) {
            return fails(kFrameBufferReads) ? SSRS_NULL_DATA
                                            : fake_ssrs::real::SSRS_Read(ctx, frame);
        };
        fake_alsa::hooks().wait = [this](snd_pcm_t* pcm, int timeoutMs) {
            std::this_thread::yield();
            return fails(kWaits) ? -ENODEV : fake_alsa::device::wait(pcm, timeoutMs);
        };
        fake_sys::hooks().pthread_create = [this](pthread_t* id, const pthread_attr_t* attributes,
                                                  void* (*entry)(void*), void* argument) {
            return fails(kThreads) && ++creations % 3 == 0
                       ? EAGAIN
                       : fake_sys::real::pthread_create(id, attributes, entry, argument);
        };
    }

    bool fails(unsigned what) const { return (faults & what) != 0; }
    unsigned upTo(unsigned n) { return static_cast<unsigned>(random() % n); }

    // ---- Events --------------------------------------------------------------------------------

    void switchSource() { source.intfUpdate(upTo(5) < 3); }
    void switchSink() { sink.intfUpdate(upTo(3) < 2); }
    void bind() { setNames(); }
    void unbind() {
        source.intfUpdate(false);
        sink.intfUpdate(false);
        source.setDevName(nullptr, nullptr);
        sink.setDevName(nullptr, nullptr);
        if (upTo(2) == 0) {
            bind();
        }
    }
    void failAStartStep() {
        fake_alsa::answerAt(kStartSteps[upTo(std::size(kStartSteps))],
                            1 + static_cast<int>(upTo(3)), -EIO);
    }
    void failOrMend() { faults = upTo(3) == 0 ? upTo(kAllFaults) : 0; }

    void stopUnderAHaltedApp() {
        microphone->halt();
        bind();
        source.intfUpdate(false);
        ASSERT_TRUE(eventually([this] { return source.hasStopped(); }));
        microphone->resume();
    }

    void sendEvents(unsigned events) {
        using Event = void (ChannelStressTest::*)();
        constexpr Event kinds[] = {&ChannelStressTest::switchSource,
                                   &ChannelStressTest::switchSource,
                                   &ChannelStressTest::switchSource,
                                   &ChannelStressTest::switchSink,
                                   &ChannelStressTest::switchSink,
                                   &ChannelStressTest::bind,
                                   &ChannelStressTest::unbind,
                                   &ChannelStressTest::failOrMend,
                                   &ChannelStressTest::failAStartStep,
                                   &ChannelStressTest::failOrMend,
                                   &ChannelStressTest::stopUnderAHaltedApp};
        for (unsigned event = 0; event < events; ++event) {
            (this->*kinds[upTo(std::size(kinds))])();
            if (upTo(4) == 0) {
                std::this_thread::yield();
            }
            if (upTo(64) == 0) {
                fake_log::clear();
                fake_ipc::clear();
            }
        }
    }

    // ---- Afterwards ----------------------------------------------------------------------------

    void mendEverything() {
        faults = 0;
        for (const char* step : kStartSteps) {
            fake_alsa::stopAnswering(step);
        }
        setNames();
    }

    // Sends off events until both have stopped. A speaker that waits at a FIFO whose path is gone
    // needs one more event to look for the new FIFO.
    void switchOff() {
        ASSERT_TRUE(eventually([this] {
            source.intfUpdate(false);
            sink.intfUpdate(false);
            return source.hasStopped() && sink.hasStopped();
        }));
        fake_log::clear();
    }

    void streamBothWays() {
        ASSERT_EQ(0, source.intfUpdate(true));
        ASSERT_EQ(0, sink.intfUpdate(true));
        const long read = blocksRead;
        const long written = periodsWritten;
        ASSERT_TRUE(
            eventually([&] { return blocksRead > read + 20 && periodsWritten > written + 20; }));
        switchOff();
    }

    const unsigned seed = fromEnvironment("UAFD_STRESS_SEED", 1);
    std::minstd_rand random{seed};
    std::unique_ptr<WildApp> microphone;  // writes what the source reads
    std::unique_ptr<WildApp> speaker;
    std::atomic<unsigned> faults{0};
    std::atomic<unsigned> creations{0};
    std::atomic<unsigned> stops{0};
    std::atomic<unsigned> failedOpens{0};
    std::atomic<long> blocksRead{0};
    std::atomic<long> periodsWritten{0};
};

TEST_F(ChannelStressTest, ChannelsThatWentThroughEverythingStreamAgain) {
    std::thread([] {}).join();  // a sanitizer starts its own thread with the first one
    const long threads = entriesOf("task");
    const long descriptors = entriesOf("fd");
    microphone = std::make_unique<WildApp>(sourceFifo, O_WRONLY, seed + 1);
    speaker = std::make_unique<WildApp>(sinkFifo, O_RDONLY, seed + 2);
    const unsigned events = fromEnvironment("UAFD_STRESS_EVENTS", kEvents);
    sendEvents(events);
    std::cout << "stops of the microphone: " << stops << ", failed opens: " << failedOpens
              << ", blocks read: " << blocksRead << ", periods written: " << periodsWritten
              << std::endl;
    EXPECT_GE(stops, events / 1000);
    mendEverything();
    microphone->settle();
    speaker->settle();
    ASSERT_TRUE(eventually([&] { return microphone->hasSettled() && speaker->hasSettled(); }));
    switchOff();
    for (int round = 0; round < 3; ++round) {
        streamBothWays();
    }
    microphone = nullptr;
    speaker = nullptr;
    source.joinWorker();
    sink.joinWorker();
    EXPECT_TRUE(eventually([&] { return entriesOf("task") == threads; }));
    EXPECT_EQ(descriptors + 1, entriesOf("fd")) << "the microphone's FIFO alone stays open";
}

}  // namespace
}  // namespace uafd
