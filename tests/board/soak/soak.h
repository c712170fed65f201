// SPDX-License-Identifier: Apache-2.0
// A soak: both directions stream for virtual minutes or hours while the host's clock runs fast or
// slow, the app's writes come late, and now and then something is disturbed. Every frame is
// checked. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "board/kit/audio_host.h"
#include "board/kit/daemon_board.h"
#include "board/kit/process_view.h"
#include "tests/board/soak/tally.h"

namespace board {

struct SoakPlan {
    int ppm = 0;       // how much faster the host's clock is
    int jitterMs = 0;  // how late the app's writes may come
    int seconds = 60;
    int64_t seed = 0;     // decides the jitter and the disturbances
    int calmSeconds = 0;  // between two disturbances; 0 for no disturbance
};

// An app that is late or stops reading for a moment, xruns, a host that pauses or closes its
// streams.
enum class DisturbanceKind {
    kAppLate,       // the app pauses its writes, then catches up
    kAppDeaf,       // the app reads nothing
    kMicXrun,       // the playback stops with an xrun
    kSpeakerXrun,   // the capture does
    kMicStall,      // the host takes nothing
    kSpeakerStall,  // the host sends nothing
    kMicOff,        // the host closes its microphone and opens it again
    kSpeakerOff,    // the same of its speaker
};

struct Disturbance {
    DisturbanceKind kind;
    Ns length;  // 0 for an xrun
};

const char* nameOf(DisturbanceKind kind);

// A disturbance and what followed.
struct Outcome {
    Disturbance disturbance;
    int64_t atSecond;  // since the start of the soak
    Ns speakerBack;    // from its end until the sound was right and in time again
    Ns micBack;
    // The microphone's stream was closed or strained, so its latency has to settle as at its
    // beginning.
    bool unsettled;
};

// What the daemon's process holds.
struct Holdings {
    MemoryView memory{};
    int64_t descriptors = 0;
};

// The state at the end of an hour, counted from the soak's beginning.
struct Hour {
    int64_t speakerFrames;  // arrived while nothing was disturbed
    int64_t micFrames;
    int64_t wrong;  // all errors of both directions in that time
    size_t disturbances;
    Holdings holdings;
};

// What was found about both directions; each of them has its own tally.
struct SoakResult {
    Ns begin = 0;
    std::vector<Outcome> outcomes;
    Holdings first;           // at the first check with both directions streaming
    Holdings last;            // at the last check
    std::vector<Hour> hours;  // complete hours only
    int64_t xruns = 0;        // without the injected ones
    int strainedSeconds = 0;  // how long the app's jitter was too large for the daemon's buffer
    // The largest difference, in samples, between what latency control gained in a calm stretch and
    // what the clocks' difference requires.
    double gainError = 0;
    std::string damage;  // what is wrong with the daemon at the end; empty for nothing
};

class Soak {
  public:
    virtual ~Soak() = default;
    Soak(const Soak&) = delete;
    Soak& operator=(const Soak&) = delete;
    // Throws when the board does not start; every other error is in the result.
    void run();

    const SpeakerTally& speaker() const { return *speakerTally; }
    const MicTally& mic() const { return *micTally; }
    const SoakResult& result() const { return found; }

    const SoakPlan plan;

  protected:
    explicit Soak(const SoakPlan& plan) : plan(plan) {}

    // ---- What differs by what the board has for USB --------------------------------------------

    virtual DaemonBoard& board() = 0;
    // Valid from now on. Frames may be counted from any moment, but always from the same one.
    virtual StreamClock clockOf(const Direction& direction) = 0;
    // The first frame of what the host plays, or records.
    virtual int64_t beginOf(const Direction& direction) = 0;
    // The first frame of the daemon's playback, if that has begun since the last call.
    virtual std::optional<int64_t> newPlayback() = 0;
    // So far.
    virtual int64_t playbackOpens() = 0;
    virtual int64_t xruns() = 0;
    // What the sound waits for between the daemon's card and the bus, in the microphone's
    // direction.
    virtual Ns prepared() = 0;
    virtual void disturb(const Disturbance& disturbance) = 0;

  private:
    void comeUp();
    void settle();
    bool isStrained();
    void bearStrain(Ns until);
    void stayCalm(Ns until);
    void disturbOnce();
    void anchor();
    void look();
    void noteHour();
    Holdings holdings();
    void finish();

    std::unique_ptr<SpeakerTally> speakerTally;
    std::unique_ptr<MicTally> micTally;
    StreamClock speakerClock;
    StreamClock micClock;
    size_t logMark = 0;  // the daemon's log when the stream last began
    int64_t lostBlocksBefore = 0;
    SoakResult found;
};

// With the simulated host, which can disturb it; and over the wire, with the kernel's own host and
// undisturbed: that throws when the plan has disturbances.
std::unique_ptr<Soak> simulatedSoak(const SoakPlan& plan);
std::unique_ptr<Soak> wireSoak(const SoakPlan& plan);

}  // namespace board
