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

namespace uafd {

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
        : options(std::move(options)), ends(folder) {
        ends.bindSocket();
        thread = std::thread([this] { run(); });
    }
    ~StreamingDaemon() {
        stop = true;
        thread.join();
    }
    // Of the app's, all that have come.
    std::vector<DaemonEnds::Message> messages() {
        answer();  // what the thread has not come to
        const std::lock_guard<std::mutex> lock(mutex);
        return received;
    }
    StreamingDaemon(const StreamingDaemon&) = delete;
    StreamingDaemon& operator=(const StreamingDaemon&) = delete;

  private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kPeriod{5};
    static constexpr size_t kPeriodSamples = 480;

    void run() {
        for (Clock::time_point due = Clock::now(); !stop; due += kPeriod) {
            answer();
            if (options.records) {
                record();
            }
            if (options.plays) {
                play();
            }
            std::this_thread::sleep_until(due + kPeriod);
        }
        close(speaker);
        close(mic);
    }
    void answer() {
        const std::lock_guard<std::mutex> lock(mutex);
        for (const DaemonEnds::Message& message : ends.messages()) {
            received.push_back(message);
            for (const DaemonEnds::Message& part : options.answer) {
                if (message.first == 7) {
                    ends.send(part.first, part.second);
                }
            }
        }
    }
    void record() {
        if (mic < 0) {
            mic = open(ends.path("FifoTx").c_str(), O_RDONLY | O_NONBLOCK);
        }
        std::vector<int16_t> block(2 * kPeriodSamples);
        const ssize_t got = read(mic, block.data(), block.size() * sizeof block[0]);
        if (got > 0 && options.echoes) {
            echo.insert(echo.end(), block.begin(), block.end());
        }
    }
    // Fails while there is no app.
    void play() {
        if (speaker < 0) {
            speaker = open(ends.path("FifoRx").c_str(), O_WRONLY | O_NONBLOCK);
        }
        std::vector<int16_t> period(kPeriodSamples);
        for (size_t i = 0; i < kPeriodSamples; ++i) {
            period[i] = i % 2 == 0 ? options.left : options.right;
        }
        const size_t echoed = std::min(echo.size(), kPeriodSamples);
        std::copy_n(echo.begin(), echoed, period.begin());
        echo.erase(echo.begin(), echo.begin() + static_cast<std::ptrdiff_t>(echoed));
        if (write(speaker, period.data(), period.size() * sizeof period[0]) < 0 && errno == EPIPE) {
            close(std::exchange(speaker, -1));
        }
    }

    const StreamingOptions options;
    DaemonEnds ends;
    mutable std::mutex mutex;
    std::vector<DaemonEnds::Message> received;
    std::vector<int16_t> echo;
    int speaker = -1;
    int mic = -1;
    std::atomic<bool> stop{false};
    std::thread thread;
};

}  // namespace uafd
