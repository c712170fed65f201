// SPDX-License-Identifier: Apache-2.0
// Simulates the microphone direction from the app's writes to the USB host, around the daemon's own
// frame buffer: the FIFO, the buffer thread that reads it in blocks, the worker that fills the
// gadget card's ring, and a host whose clock differs. The daemon's threads respond at once. Every
// sample is tracked, so that late, repeated and lost ones are counted. Pure; one thread.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "board/kit/clock.h"
#include "board/kit/statistics.h"
#include "channel/frame_buffer.h"

namespace drift {

using board::kMs;
using board::kSecond;
using board::Ns;

inline double inMs(Ns time) {
    return static_cast<double>(time) / kMs;
}

// A time in which the app writes nothing.
struct Pause {
    Ns at;
    Ns length;
    bool dropped;  // skips what was due meanwhile; otherwise all of it is written at the end
};

struct Scenario {
    int ppm = 0;             // by how much the host's clock is faster than the app's
    int blockFrames = 480;   // of one write
    Ns jitter = 0;           // each write is late by up to this, uniformly distributed
    Ns phase = 5 * kMs / 2;  // of the first write, from the start of the host's stream
    uint64_t seed = 0;       // decides how late each write is
    std::vector<Pause> pauses;
};

// ---- The app -----------------------------------------------------------------------------------

// When the app's clock reaches this frame.
Ns dueOf(const Scenario& scenario, int64_t frame);

struct AppWrite {
    Ns at;
    int64_t firstFrame;
};

class AppWrites {
  public:
    explicit AppWrites(const Scenario& scenario);

    // The next write, of the scenario's blockFrames; never before the previous one.
    AppWrite next();

  private:
    bool isDropped(Ns at) const;
    Ns delayed(Ns at) const;

    const Scenario scenario;
    std::mt19937_64 engine;
    int64_t block = 0;
    Ns lastAt = 0;
};

// ---- The simulation ----------------------------------------------------------------------------

// One read by the worker, 5 ms of sound.
struct Reading {
    Ns at;         // since the host's stream began
    int depth;     // of the frame buffer before the read, in samples
    int depthLow;  // the range in which frames are neither stretched nor squeezed
    int depthHigh;
    int correction;  // 1: stretched, a sample added; -1: squeezed, a sample removed
    bool starved;    // there were too few of the app's samples for the frame
    Ns latency;      // of its first sample; -1 if none is the app's
};

// Since the host's stream began. In samples unless stated otherwise.
struct Counts {
    int64_t written = 0;     // by the app
    int64_t stretches = 0;   // frames
    int64_t squeezes = 0;    // frames
    int64_t underruns = 0;   // frames with too few samples
    int64_t emptyReads = 0;  // completely silent frames, not counting those before the first write
    int64_t overruns = 0;    // blocks for which there was no room
    int64_t lost = 0;        // the app's samples in those blocks, or when the buffer was enlarged
    int64_t silent = 0;      // heard in place of the app's sound once that had begun
    int64_t stale = 0;       // heard twice, after a write that was not a whole block
    Ns enlargedAt = -1;      // when the frame buffer was enlarged
};

class MicSimulation {
  public:
    explicit MicSimulation(const Scenario& scenario);
    MicSimulation(const MicSimulation&) = delete;
    MicSimulation& operator=(const MicSimulation&) = delete;

    // Simulates up to the worker's next read.
    Reading read();

    const Counts& counts() const { return counted; }
    // The app's samples in the frame buffer, and those that have left it for the host.
    int64_t queued() const;
    int64_t played() const { return playedSamples; }

  private:
    enum class Source { kApp, kStart, kSilence, kStale };
    // Consecutive samples in the frame buffer.
    struct Span {
        Source source;
        int64_t frame;  // the first one's number among the app's
        int64_t count;
    };

    void takeWrite(const AppWrite& write);
    void bufferPass(int64_t frame, int fresh, Ns at);
    void discardQueued(Ns at);
    void follow(Source source, int64_t frame, int64_t count);
    int depth() const;
    SSRS_Stats statistics() const;
    Ns hostTime(int64_t periods) const;
    Ns latencyOf(Ns playedAt, int64_t samples) const;
    void consume(int64_t samples);

    const Scenario scenario;
    AppWrites writes;
    AppWrite nextWrite;
    uafd::FrameBuffer buffer;
    std::deque<Span> spans;  // the contents of the frame buffer
    Counts counted;
    int64_t reads = 0;
    int64_t playedSamples = 0;
    unsigned passes = 0;
};

// ---- What a scenario does to the sound ---------------------------------------------------------

// By then a stream's depth and latency are in their ranges, whatever the clocks' difference is.
constexpr Ns kSettling = 3 * kSecond;

struct Measured {
    // These count from kSettling on.
    board::Spread depth;    // of the frame buffer before a read, ns of sound
    board::Spread latency;  // of the app's samples
    double stretchesPerSecond = 0;
    double squeezesPerSecond = 0;
    // Counts from the beginning.
    Counts counts;
};

using Look = std::function<void(const Reading& reading, const Counts& counts)>;

// Simulates the scenario for `time` and passes every read to `look`, if there is one.
Measured measure(const Scenario& scenario, Ns time, const Look& look = {});

// The common cases of an app, simulated: a Markdown table with a row for each, as in docs/drift.md.
std::string tableOfCases();

}  // namespace drift
