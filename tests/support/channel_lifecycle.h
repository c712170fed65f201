// SPDX-License-Identifier: Apache-2.0
// The fixture of tests that run both channels with their real threads, locks and FIFOs. The sound
// card is fake; its time passes only when a thread waits for it.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

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
    // Joins the finished worker, as the next start does.
    void joinWorker() {
        pthread_mutex_lock(&this->intfMutex);
        if (this->joinPending) {
            pthread_join(this->threadId, nullptr);
            this->joinPending = false;
        }
        pthread_mutex_unlock(&this->intfMutex);
    }
};

class ChannelLifecycleTest : public fake_sys::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    void makeFifos();
    void setNames();

    // Puts a new FIFO in the place of the one on which a channel that is on waits for the app.
    void replaceOnceWaitedOn(const std::string& fifo);
    // Both channels' on and off messages must alternate, beginning with an on.
    void expectAlternatingMessages();
    static int logged(int priority, const char* tag, const std::string& text);

    const TempDir directory;
    const std::string sourceFifo = directory.path() + "/tx";
    const std::string sinkFifo = directory.path() + "/rx";
    std::atomic<pid_t> openerTid{0};  // of the thread that last opened a file
    Open<UafSrc> source;
    Open<UafSnk> sink;
    // Called in each pass of a worker.
    std::function<void()> atWait = [] {};
    std::atomic<int16_t> lastPlayed{0};
};

}  // namespace uafd
