// SPDX-License-Identifier: Apache-2.0
// What is counted of one direction in a soak. While the sound is calm everything counts against the
// daemon; after a disturbance it is counted apart, and what counts is how soon it is over.
#pragma once

#include <cstdint>
#include <vector>

#include "board/kit/clock.h"
#include "board/kit/host.h"
#include "tests/board/soak/latencies.h"

namespace board {

struct Counts {
    int64_t frames = 0;       // that arrived with sound
    int64_t lost = 0;         // frames
    int64_t repeated = 0;     // frames
    int64_t unexplained = 0;  // frames that are nothing that was sent
    int64_t silent = 0;       // frames of silence in between
    int64_t clicks = 0;
    int64_t underruns = 0;  // frames of the latency control that found too little
    int64_t overruns = 0;   // blocks that it had no room for
    int64_t gained = 0;     // samples, by latency control

    // Everything that calm sound has none of.
    int64_t wrong() const {
        return lost + repeated + unexplained + silent + clicks + underruns + overruns;
    }
};

// What the sound is measured by.
enum class State {
    kDisturbed,  // wrong by what was done to it, or not yet right
    kStrained,   // wrong now and then, by an app that jitters more than the daemon's buffer holds
    kCalm,       // to be right
};
constexpr size_t kStates = 3;

// Where the latency of a direction belongs.
struct Window {
    Ns low = 0;
    Ns high = 0;
    bool holds(Ns latency) const { return latency >= low && latency <= high; }
};

// Tells the board's time from the number of a frame in the host's stream; from an anchor on, for as
// long as the stream is neither switched nor stalled.
class StreamClock {
  public:
    StreamClock() = default;
    StreamClock(const Host& host, const std::string& direction);
    // When the USB frame that carries it moved.
    Ns timeOf(int64_t frame) const;

  private:
    int64_t frames = 0;
    Ns lastAt = 0;
    double usbFrameNs = 0;
};

// The count of one direction.
class Tally {
  public:
    explicit Tally(Window window) : latencyWindow(window) {}

    void setWindow(Window window) { latencyWindow = window; }
    void setState(State state);
    Counts& counts() { return countsByState[static_cast<size_t>(currentState)]; }
    const Counts& countsOf(State state) const { return countsByState[static_cast<size_t>(state)]; }

    // Sound that was at `at` in its place, so late.
    void note(Ns at, Ns latency);
    // Something was wrong with the sound at `at`.
    void noteWrong(Ns at);

    // When it was, of the calm sound; the first few.
    const std::vector<Ns>& wrongWhenCalm() const { return calmWrongs; }
    // When the sound was last wrong or outside of the window, since the state changed.
    Ns lastWrongAt() const { return latestWrongAt; }
    // Of the sound that was not disturbed, the whole and the median of each minute; and how many
    // were outside of the window though it was calm.
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
