// SPDX-License-Identifier: Apache-2.0
// The host plays: keeps the speaker device filled with `voice`, from frame 0 on, for as
// long as this lives, or until `frames` are queued. Has a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <thread>

#include "board/kit/sound.h"

namespace board {

class HostPlayer {
  public:
    explicit HostPlayer(Voice voice, int64_t frames = std::numeric_limits<int64_t>::max());
    // What is queued stays queued.
    ~HostPlayer();
    HostPlayer(const HostPlayer&) = delete;
    HostPlayer& operator=(const HostPlayer&) = delete;

    // Frames handed to the device so far.
    int64_t queued() const { return queuedFrames; }

  private:
    void run();

    const Voice voice;
    const int64_t frameLimit;
    std::atomic<int64_t> queuedFrames{0};
    std::atomic<bool> stop{false};
    std::thread thread;
};

}  // namespace board
