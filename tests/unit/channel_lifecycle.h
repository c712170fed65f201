// SPDX-License-Identifier: Apache-2.0
// Both channels with their real threads, locks and FIFOs, and the companion app's ends of the
// FIFOs. The sound card is fake; its time passes only when a thread waits for it.
#pragma once

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_ssrs.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/eventually.h"

namespace uafd {

constexpr char kPcmName[] = "hw:1";
constexpr uint32_t kSinkMessage = 1;
constexpr uint32_t kSourceMessage = 2;

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
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(0, mkfifo(sourceFifo.c_str(), 0600));
        ASSERT_EQ(0, mkfifo(sinkFifo.c_str(), 0600));
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
        fake_sys::Test::TearDown();
    }

    void setNames() {
        source.setDevName(sourceFifo.c_str(), kPcmName);
        sink.setDevName(sinkFifo.c_str(), kPcmName);
    }
    // Puts a new FIFO in the place of the one on which a channel that is on waits for the app.
    void replaceOnceWaitedOn(const std::string& fifo) {
        ASSERT_TRUE(fallsAsleep(openerTid));
        ASSERT_EQ(0, unlink(fifo.c_str()));
        ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    }
    // Both channels' on and off messages must alternate, beginning with an on.
    static void expectAlternatingMessages() {
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

// ---- The companion app -------------------------------------------------------------------------

// One end of a FIFO, with a thread that never blocks: it reopens its end whenever the daemon's end
// has gone, until it is destroyed. `transfer` moves some bytes and returns the result of its read
// or write.
class FifoApp {
  public:
    FifoApp(std::string fifoPath, int direction, std::function<ssize_t(int)> transfer)
        : path(std::move(fifoPath)),
          flags(direction | O_NONBLOCK),
          move(std::move(transfer)),
          thread([this] { run(); }) {}
    ~FifoApp() {
        done = true;
        thread.join();
    }
    FifoApp(const FifoApp&) = delete;
    FifoApp& operator=(const FifoApp&) = delete;

    bool isOpen() const { return opened; }

  private:
    void run() {
        int fd = -1;
        while (!done) {
            if (fd < 0) {
                fd = open(path.c_str(), flags);
                opened = fd >= 0;
            } else if (move(fd) < 0 && errno != EAGAIN) {
                close(fd);
                fd = -1;
            }
            std::this_thread::yield();
        }
        if (fd >= 0) {
            close(fd);
        }
    }

    const std::string path;
    const int flags;
    const std::function<ssize_t(int)> move;
    std::atomic<bool> done{false};
    std::atomic<bool> opened{false};
    std::thread thread;
};

// Writes blocks of 10 ms whose left samples all have one value; the pipe takes a block whole.
class AppWriter : public FifoApp {
  public:
    AppWriter(const std::string& path, int16_t leftValue)
        : FifoApp(path, O_WRONLY, [leftValue](int fd) {
              std::array<int16_t, 960> block;
              for (size_t i = 0; i < block.size(); ++i) {
                  block[i] = i % 2 == 0 ? leftValue : int16_t{-1};
              }
              return write(fd, block.data(), sizeof block);
          }) {}
};

// Reads and discards.
class AppReader : public FifoApp {
  public:
    explicit AppReader(const std::string& path)
        : FifoApp(path, O_RDONLY, [](int fd) {
              std::array<char, 4096> bytes;
              return read(fd, bytes.data(), bytes.size());
          }) {}
};

}  // namespace uafd
