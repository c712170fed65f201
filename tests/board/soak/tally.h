// SPDX-License-Identifier: Apache-2.0
// What is counted of one direction in a soak. While the sound is calm every error counts against
// the daemon; errors after a disturbance are counted apart, and what matters is how soon they end.
// One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "board/kit/app.h"
#include "board/kit/clock.h"
#include "board/kit/mic_recording.h"
#include "tests/board/soak/tone.h"

namespace board {

// A histogram of latencies: its memory does not grow with their number.
class Latencies {
  public:
    static constexpr Ns kBin = kMs / 20;

    void add(Ns latency);
    void clear();

    int64_t count() const { return total; }
    Ns smallest() const { return smallestSeen; }
    Ns largest() const { return largestSeen; }
    // The middle of the bin in which the `share` of all latencies is reached.
    Ns quantile(double share) const;
    // "BIN:COUNT" for each bin that is not empty; bin b begins at b times kBin.
    std::string text() const;

  private:
    static constexpr size_t kBins = 4000;  // 200 ms; what lies outside is in the first or last bin
    std::vector<int64_t> bins = std::vector<int64_t>(kBins);
    int64_t total = 0;
    Ns smallestSeen = 0;
    Ns largestSeen = 0;
};

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

// Compares each frame that the app heard with the tone that the host plays.
class SpeakerTally : public Tally {
  public:
    // The host's queue begins with frame `queueBegin` of its stream.
    SpeakerTally(Window window, int64_t queueBegin) : Tally(window), queueBegin(queueBegin) {}

    void add(const Heard& heard, const StreamClock& clock);

  private:
    // Returns false when any of them was not in its place.
    bool follow(const int16_t* samples, int64_t count);
    // Handles samples that are not the expected ones; returns how many of them it handled.
    int64_t findAgain(const int16_t* samples, int64_t count);

    const int64_t queueBegin;
    int64_t next = 0;  // the frame expected next, counted from the host's first
    ClickCounter clicks;
};

// Explains each playback frame of the host's recording by what the app's FIFO took.
class MicTally : public Tally {
  public:
    // The recording begins with frame `recordingBegin` of the host's stream. The app has sent the
    // tone since its first block; `timeOfFrame` returns when the app's clock reached a frame of it.
    MicTally(Window window, int64_t recordingBegin, std::function<Ns(int64_t)> timeOfFrame);

    // The daemon's playback has started again with frame `begin` of the host's stream: its frames
    // are counted from there, and recorded samples that were not yet examined are dropped.
    void restart(int64_t begin);
    // Adds blocks in the order in which they were sent.
    void addSent(const std::vector<SentBlock>& blocks);
    void add(Samples recorded, const StreamClock& clock);

  private:
    // Blocks whose frames follow each other.
    struct Run {
        int64_t sample;      // index of the first one among all sent samples
        int64_t voiceFrame;  // index of its frame in the tone
    };

    int64_t voiceFrameOf(int64_t sample) const;
    void addFrame(const MicFrame& frame, const StreamClock& clock);
    void countSkipped(int64_t samples);

    const std::function<Ns(int64_t)> timeOfFrame;
    std::vector<Run> runs;
    int64_t sentSamples = 0;
    int64_t streamAt;            // the frame of the host's stream that is recorded next
    int64_t recordingBegin;      // the frame with which the recording begins
    int64_t consumedBefore = 0;  // samples before the recording began
    std::unique_ptr<MicRecording> recording;
    int64_t unexplained = 0;  // samples since the last explained frame
    ClickCounter clicks;
};

}  // namespace board
