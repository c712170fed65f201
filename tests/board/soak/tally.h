// SPDX-License-Identifier: Apache-2.0
// What is counted of one direction in a soak. While the sound is calm every error counts against
// the daemon; errors after a disturbance are counted apart, and what matters is how soon they end.
#pragma once

#include <cstdint>
#include <vector>

#include "board/kit/clock.h"
#include "tests/board/soak/latencies.h"

namespace board {

struct Counts {
    int64_t frames = 0;       // that arrived with sound
    int64_t lost = 0;         // frames
    int64_t repeated = 0;     // frames
    int64_t unexplained = 0;  // frames that match nothing sent
    int64_t silent = 0;       // frames of silence in between
    int64_t clicks = 0;
    int64_t underruns = 0;  // frames for which latency control found too few samples
    int64_t overruns = 0;   // blocks for which there was no room
    int64_t gained = 0;     // samples that latency control added

    // The sum of all errors; calm sound has none.
    int64_t wrong() const {
        return lost + repeated + unexplained + silent + clicks + underruns + overruns;
    }
};

// By which measure the sound is judged.
enum class State {
    kDisturbed,  // a disturbance has made it wrong, or it has not recovered yet
    kStrained,   // wrong now and then, as the app's jitter is too large for the daemon's buffer
    kCalm,       // has to be right
};
constexpr size_t kStates = 3;

// The range of a direction's latency.
struct Window {
    Ns low = 0;
    Ns high = 0;
    bool holds(Ns latency) const { return latency >= low && latency <= high; }
};

// Converts a frame's number in the host's stream to the board's time. An anchor holds until the
// stream is switched or stalled.
class StreamClock {
  public:
    StreamClock() = default;
    // `frames` have moved, the last of them at `lastAt`.
    StreamClock(int64_t frames, Ns lastAt, double nsPerFrame);
    // When the USB frame that carried it moved.
    Ns timeOf(int64_t frame) const;

  private:
    int64_t frames = 0;
    Ns lastAt = 0;
    double usbFrameNs = 0;
};

// The counts of one direction.
class Tally {
  public:
    explicit Tally(Window window) : latencyWindow(window) {}

    void setWindow(Window window) { latencyWindow = window; }
    void setState(State state);
    Counts& counts() { return countsByState[static_cast<size_t>(currentState)]; }
    const Counts& countsOf(State state) const { return countsByState[static_cast<size_t>(state)]; }

    // Notes sound that was in its place at time `at`, with its latency.
    void note(Ns at, Ns latency);
    // Notes an error in the sound at time `at`.
    void noteWrong(Ns at);

    // When calm sound was wrong; the first few times.
    const std::vector<Ns>& wrongWhenCalm() const { return calmWrongs; }
    // When the sound was last wrong or outside its window, since the state changed.
    Ns lastWrongAt() const { return latestWrongAt; }
    // The latencies of undisturbed sound: all of them, the median of each minute, and how many lay
    // outside the window while the sound was calm.
    const Latencies& latencies() const { return all; }
    const std::vector<Ns>& minutes() const { return minuteMedians; }
    int64_t outside() const { return outsideWindow; }

  private:
    Window latencyWindow;
    State currentState = State::kDisturbed;
    Counts countsByState[kStates];
    Ns latestWrongAt = 0;
    std::vector<Ns> calmWrongs;
    Latencies all;
    Latencies minute;
    Ns minuteEnd = 0;
    std::vector<Ns> minuteMedians;
    int64_t outsideWindow = 0;
};

}  // namespace board
