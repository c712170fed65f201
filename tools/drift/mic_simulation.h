// SPDX-License-Identifier: Apache-2.0
// Simulates the microphone direction from the app's writes to the USB host, around the daemon's own
// frame buffer: the FIFO, the buffer thread that reads it in blocks, the worker that fills the
// gadget card's ring, and a host whose clock differs. The daemon's threads respond at once. Every
// sample is tracked, so that late, repeated and lost ones are counted. Pure; one thread.
#pragma once

#include <cstdint>
#include <deque>

#include "channel/frame_buffer.h"
#include "tools/drift/app_writes.h"
#include "tools/drift/scenario.h"

namespace drift {

// One read of the worker's, 5 ms of sound.
struct Reading {
    Ns at;         // since the host's stream began
    int depth;     // of the frame buffer before the read, samples
    int depthLow;  // the range in which frames are neither stretched nor squeezed
    int depthHigh;
    int correction;  // 1: stretched, a sample added; -1: squeezed, a sample removed
    bool starved;    // the app's samples did not fill the frame
    Ns latency;      // of its first sample; -1 when it has none of the app's
};

// Since the host's stream began. Samples unless stated otherwise.
struct Counts {
    int64_t written = 0;     // by the app
    int64_t stretches = 0;   // frames
    int64_t squeezes = 0;    // frames
    int64_t underruns = 0;   // frames that were short
    int64_t emptyReads = 0;  // completely silent frames, not counting those before the first write
    int64_t overruns = 0;    // blocks that found no room
    int64_t lost = 0;        // the app's samples in those blocks, or when the buffer was enlarged
    int64_t silent = 0;      // heard instead of the app's, once they had begun
    int64_t stale = 0;       // heard a second time, after a write that was no whole block
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
    // The app's samples that are in the frame buffer, and those that have left it for the host.
    int64_t queued() const;
    int64_t played() const { return playedSamples; }

  private:
    enum class Source { kApp, kStart, kSilence, kStale };
    // Samples that follow each other in the frame buffer.
    struct Span {
        Source source;
        int64_t frame;  // the first one, of the app's
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
    std::deque<Span> spans;  // what the frame buffer holds
    Counts counted;
    int64_t reads = 0;
    int64_t playedSamples = 0;
    unsigned passes = 0;
};

}  // namespace drift
