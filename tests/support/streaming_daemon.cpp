// SPDX-License-Identifier: Apache-2.0
#include "tests/support/streaming_daemon.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace uafd {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPeriod{5};
constexpr size_t kPeriodSamples = 480;

}  // namespace

StreamingDaemon::StreamingDaemon(const TempDir& folder, StreamingOptions options)
    : options(std::move(options)), ends(folder) {
    ends.bindSocket();
    thread = std::thread([this] { run(); });
}

StreamingDaemon::~StreamingDaemon() {
    stop = true;
    thread.join();
}

std::vector<DaemonEnds::Message> StreamingDaemon::messages() {
    answer();  // handles what came while the thread was busy
    const std::lock_guard<std::mutex> lock(mutex);
    return received;
}

void StreamingDaemon::run() {
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

void StreamingDaemon::answer() {
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

void StreamingDaemon::record() {
    if (mic < 0) {
        mic = open(ends.path("FifoTx").c_str(), O_RDONLY | O_NONBLOCK);
    }
    std::vector<int16_t> block(2 * kPeriodSamples);
    const ssize_t got = read(mic, block.data(), block.size() * sizeof block[0]);
    if (got > 0 && options.echoes) {
        echo.insert(echo.end(), block.begin(), block.end());
    }
}

void StreamingDaemon::play() {
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

}  // namespace uafd
