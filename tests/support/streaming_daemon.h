// SPDX-License-Identifier: Apache-2.0
// A daemon in its steady state, as an app sees it: both streams are on, sync-ups are answered,
// sound is played, blocks are taken, FIFO ends are reopened. The options change this before it
// starts. It has a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/daemon_ends.h"

namespace uafd {

struct StreamingOptions {
    static StreamingOptions answering(std::vector<DaemonEnds::Message> answer) {
        StreamingOptions options;
        options.answer = std::move(answer);
        return options;
    }
    static StreamingOptions playing(int16_t left, int16_t right) {
        StreamingOptions options;
        options.left = left;
        options.right = right;
        return options;
    }

    std::vector<DaemonEnds::Message> answer = {{0, 1}, {1, 1}, {2, 1}};  // to a sync-up
    int16_t left = 1000;  // of the sound that is played
    int16_t right = 1000;
    bool plays = true;
    bool records = true;
    bool echoes = false;  // plays what it records
};

class StreamingDaemon {
  public:
    StreamingDaemon(const TempDir& folder, StreamingOptions options);
    ~StreamingDaemon();
    StreamingDaemon(const StreamingDaemon&) = delete;
    StreamingDaemon& operator=(const StreamingDaemon&) = delete;

    // All messages that the app has sent.
    std::vector<DaemonEnds::Message> messages();

  private:
    void run();
    void answer();
    void record();
    // Has no effect while there is no app.
    void play();

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
