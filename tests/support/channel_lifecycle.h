// SPDX-License-Identifier: Apache-2.0
// The fixture of tests that run both channels with their real threads, locks and FIFOs. The sound
// card is the fake one, whose time passes only when a thread waits for it.
#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_ssrs.h"
#include "tests/support/temp_dir.h"
#include "tests/support/thread_state.h"

namespace uafd {

constexpr char kPcmName[] = "hw:1";
constexpr uint32_t kSinkMessage = 1;
constexpr uint32_t kSourceMessage = 2;

// Waits for a condition; the deadline only ends a test that has failed.
template <typename Condition>
::testing::AssertionResult eventually(Condition holds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return ::testing::AssertionFailure() << "still not so after 60 s";
        }
        std::this_thread::yield();
    }
    return ::testing::AssertionSuccess();
}

template <typename Channel>
class Open : public Channel {
  public:
    int currentState() const { return this->state.load(); }
    bool hasStopped() const { return currentState() == UAFCH_STOPPED; }
    // What the next start does: joins the finished worker.
    void joinWorker() {
        pthread_mutex_lock(&this->intfMutex);
        if (this->joinPending) {
            pthread_join(this->threadId, nullptr);
            this->joinPending = false;
        }
        pthread_mutex_unlock(&this->intfMutex);
    }
};

class ChannelLifecycleTest : public fake_alsa::Test {
  protected:
    void SetUp() override {
        fake_alsa::Test::SetUp();
        fake_ipc::clear();
        fake_ssrs::reset();
        signal(SIGPIPE, SIG_IGN);
        makeFifos();
        fake_sys::hooks().nanosleep = [](const timespec*, timespec*) {
            return fake_sys::real::sched_yield();
        };
        fake_sys::hooks().open = [this](const char* path, int flags) {
            openerTid = gettid();
            return fake_sys::real::open(path, flags);
        };
        fake_sys::hooks().fopen = [](const char*, const char*) {
            errno = ENOENT;
            return nullptr;
        };
        fake_alsa::hooks().wait = [this](snd_pcm_t* pcm, int timeoutMs) {
            atWait();
            std::this_thread::yield();
            return fake_alsa::device::wait(pcm, timeoutMs);
        };
        fake_alsa::hooks().writei = [this](snd_pcm_t* pcm, const int16_t* samples,
                                           snd_pcm_uframes_t frames) {
            lastPlayed = samples[frames - 1];
            return fake_alsa::device::writei(pcm, samples, frames);
        };
        setNames();
    }

    void TearDown() override {
        EXPECT_TRUE(source.hasStopped());
        EXPECT_TRUE(sink.hasStopped());
        source.joinWorker();
        sink.joinWorker();
        EXPECT_EQ(0, fake_alsa::pcmsOpen());
        signal(SIGPIPE, SIG_DFL);
        fake_ipc::clear();
        fake_ssrs::reset();
        fake_alsa::Test::TearDown();
    }

    void makeFifos() {
        ASSERT_EQ(0, mkfifo(sourceFifo.c_str(), 0600));
        ASSERT_EQ(0, mkfifo(sinkFifo.c_str(), 0600));
    }

    void setNames() {
        source.setDevName(sourceFifo.c_str(), kPcmName);
        sink.setDevName(sinkFifo.c_str(), kPcmName);
    }

    // For a channel that is on, without the app: a FIFO in the place of the one that it opens.
    void makeAnewOnceWaitedOn(const std::string& fifo) {
        ASSERT_TRUE(eventually([&] { return openerTid != 0 && isAsleep(openerTid); }));
        ASSERT_EQ(0, unlink(fifo.c_str()));
        ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    }

    // Both types' on and off messages must alternate, an on first.
    void expectAlternatingMessages() {
        for (const uint32_t type : {kSinkMessage, kSourceMessage}) {
            uint32_t expected = 1;
            for (const fake_ipc::Message& message : fake_ipc::messages()) {
                if (message.first == type) {
                    ASSERT_EQ(expected, message.second) << "type " << type;
                    expected = 1 - expected;
                }
            }
            EXPECT_EQ(1U, expected) << "type " << type << " ends with an on";
        }
    }

    static int logged(int priority, const char* tag, const std::string& text) {
        return fake_log::count({priority, tag, text});
    }

    const TempDir directory;
    const std::string sourceFifo = directory.path() + "/tx";
    const std::string sinkFifo = directory.path() + "/rx";
    std::atomic<pid_t> openerTid{0};  // of the thread that opened a file last
    Open<UafSrc> source;
    Open<UafSnk> sink;
    // In each pass of a worker.
    std::function<void()> atWait = [] {};
    std::atomic<int16_t> lastPlayed{0};
};

}  // namespace uafd
