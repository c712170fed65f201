// SPDX-License-Identifier: Apache-2.0
// A daemon in its steady state, as an app sees it: both streams on, sync-ups answered, a sound
// played, blocks taken, FIFO ends opened again. What it shall do otherwise is asked for before it
// starts. Has a thread of its own.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/support/daemon_ends.h"

struct StreamingOptions {
    std::vector<DaemonEnds::Message> answer = {{0, 1}, {1, 1}, {2, 1}};  // to a sync-up
    int16_t left = 1000;                                                 // of what is played
    int16_t right = 1000;
    bool plays = true;
    bool records = true;
    bool echoes = false;  // plays what it records
};

class StreamingDaemon {
  public:
    StreamingDaemon(const TempDir& folder, StreamingOptions options)
        : options_(std::move(options)), ends_(folder) {
        ends_.bindSocket();
        thread_ = std::thread([this] { run(); });
    }
    ~StreamingDaemon() {
        stop_ = true;
        thread_.join();
    }
    // Of the app's, all that have come.
    std::vector<DaemonEnds::Message> messages() {
        answer();  // what the thread has not come to
        const std::lock_guard<std::mutex> lock(mutex_);
        return messages_;
    }
    StreamingDaemon(const StreamingDaemon&) = delete;
    StreamingDaemon& operator=(const StreamingDaemon&) = delete;

  private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kPeriod{5};
    static constexpr size_t kPeriodSamples = 480;

    void run() {
        for (Clock::time_point due = Clock::now(); !stop_; due += kPeriod) {
            answer();
            if (options_.records) {
                record();
            }
            if (options_.plays) {
                play();
            }
            std::this_thread::sleep_until(due + kPeriod);
        }
        close(speaker_);
        close(mic_);
    }
    void answer() {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const DaemonEnds::Message& message : ends_.messages()) {
            messages_.push_back(message);
            for (const DaemonEnds::Message& part : options_.answer) {
                if (message.first == 7) {
                    ends_.send(part.first, part.second);
                }
            }
        }
    }
    void record() {
        if (mic_ < 0) {
            mic_ = open(ends_.path("FifoTx").c_str(), O_RDONLY | O_NONBLOCK);
        }
        std::vector<int16_t> block(2 * kPeriodSamples);
        const ssize_t got = read(mic_, block.data(), block.size() * sizeof block[0]);
        if (got > 0 && options_.echoes) {
            echo_.insert(echo_.end(), block.begin(), block.end());
        }
    }
    // Fails while there is no app.
    void play() {
        if (speaker_ < 0) {
            speaker_ = open(ends_.path("FifoRx").c_str(), O_WRONLY | O_NONBLOCK);
        }
        std::vector<int16_t> period(kPeriodSamples);
        for (size_t i = 0; i < kPeriodSamples; ++i) {
            period[i] = i % 2 == 0 ? options_.left : options_.right;
        }
        const size_t echoed = std::min(echo_.size(), kPeriodSamples);
        std::copy_n(echo_.begin(), echoed, period.begin());
        echo_.erase(echo_.begin(), echo_.begin() + static_cast<std::ptrdiff_t>(echoed));
        if (write(speaker_, period.data(), period.size() * sizeof period[0]) < 0 &&
            errno == EPIPE) {
            close(std::exchange(speaker_, -1));
        }
    }

    const StreamingOptions options_;
    DaemonEnds ends_;
    mutable std::mutex mutex_;
    std::vector<DaemonEnds::Message> messages_;
    std::vector<int16_t> echo_;
    int speaker_ = -1;
    int mic_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};
