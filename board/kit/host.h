// SPDX-License-Identifier: Apache-2.0
// The USB host's side of the board: commands, counters and the event log of the usb_board module,
// whose contract is board/module/README.md. One thread at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "board/kit/sound.h"

namespace board {

struct HostEvent {
    Ns at;
    std::string text;
};

class Host : public ModuleControl {
  public:
    // Throws when the module is not loaded.
    Host();

    // Everything as after loading: bound, plugged, configured, streams off, volumes 0, clocks
    // equal, no fault armed, queues empty.
    void reset();

    // The events so far, or those from `since` on.
    const std::vector<HostEvent>& events();
    std::vector<HostEvent> eventsSince(Ns since);
    // How many events from `since` on have this text at their beginning.
    int countEvents(const std::string& beginning, Ns since);
    // True as soon as there are so many.
    bool waitForEvents(const std::string& beginning, Ns since, int count = 1) {
        return waitFor([&] { return countEvents(beginning, since) == count; });
    }

    // When frame `frame` of a stream ("speaker" or "mic") moved, by the host's clock. Correct if
    // the clock's offset has not changed since.
    Ns frameTime(const std::string& direction, int64_t frame) const;

    // What the host has recorded since the last call; at least once in 40 s.
    Samples takeRecording();

  private:
    Fd log;
    Fd mic;
    std::string partialLine;
    std::vector<HostEvent> seenEvents;
};

// The host plays: keeps the speaker device filled with `voice`, from frame 0 on, for as long as
// this lives, or until `frames` are queued. Has a thread of its own.
class HostPlayer {
  public:
    explicit HostPlayer(Voice voice, int64_t frames = std::numeric_limits<int64_t>::max());
    // What is queued stays queued.
    ~HostPlayer();
    HostPlayer(const HostPlayer&) = delete;
    HostPlayer& operator=(const HostPlayer&) = delete;

    // Frames handed to the device so far.
    int64_t queued() const { return queuedFrames; }
    // Waits until there are so many.
    bool fill(int64_t frames = kRate) const {
        return waitFor([&] { return queued() >= frames; });
    }

  private:
    void run();

    const Voice voice;
    const int64_t frameLimit;
    std::atomic<int64_t> queuedFrames{0};
    std::atomic<bool> stop{false};
    std::thread thread;
};

}  // namespace board
