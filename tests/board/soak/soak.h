// SPDX-License-Identifier: Apache-2.0
// A soak: both directions stream for virtual minutes or hours while the host's clock runs fast or
// slow, the app's writes come late, and now and then something is disturbed. Every frame is
// followed. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "board/kit/board.h"
#include "board/kit/host_player.h"
#include "board/kit/process_view.h"
#include "tests/board/soak/disturbance.h"
#include "tests/board/soak/mic_tally.h"
#include "tests/board/soak/speaker_tally.h"

namespace board {

struct SoakPlan {
    int ppm = 0;       // how much faster the host's clock is
    int jitterMs = 0;  // the app's writes come up to so much late
    int minutes = 1;
    int64_t seed = 0;     // picks the jitter and the disturbances
    int calmSeconds = 0;  // between two disturbances; 0: nothing is disturbed
};

// A disturbance and what became of it.
struct Outcome {
    Disturbance disturbance;
    int64_t atSecond;  // of the soak
    Ns speakerBack;    // from its end until the sound was right and in time again
    Ns micBack;
    // The microphone's stream was closed, or strained: its latency settles as at the beginning.
    bool unsettled;
};

// What the daemon's process holds.
struct Holdings {
    MemoryView memory{};
    int64_t descriptors = 0;
};

// What there was at the end of an hour, of everything since the beginning.
struct Hour {
    int64_t speakerFrames;  // that arrived while nothing was disturbed
    int64_t micFrames;
    int64_t wrong;  // in that time, all that is counted, in both directions
    size_t disturbances;
    Holdings holdings;
};

// What was found of both directions; each of them has a tally of its own.
struct SoakResult {
    Ns begin = 0;
    std::vector<Outcome> outcomes;
    Holdings first;           // with both directions streaming, at the first look
    Holdings last;            // and at the last one
    std::vector<Hour> hours;  // that are full
    int64_t xruns = 0;        // that were not injected
    int strainedSeconds = 0;  // how long the app's jitter was more than the daemon's buffer held
    // The most, in samples, that latency control gained more or less in a calm stretch than the
    // clocks differ.
    double gainError = 0;
    std::string damage;  // what is wrong with the daemon at the end, or nothing
};

class Soak {
  public:
    explicit Soak(const SoakPlan& plan) : plan(plan) {}
    // Throws when the board does not come up; what else is wrong is in the result.
    void run();

    const SpeakerTally& speaker() const { return *speakerTally; }
    const MicTally& mic() const { return *micTally; }
    const SoakResult& result() const { return found; }

    const SoakPlan plan;

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
    Holdings holdings() const;
    void finish();

    Board board{"soak"};
    std::unique_ptr<HostPlayer> player;
    std::unique_ptr<SpeakerTally> speakerTally;
    std::unique_ptr<MicTally> micTally;
    StreamClock speakerClock;
    StreamClock micClock;
    size_t logMark = 0;  // of the daemon's log, when the stream last began
    int64_t playbackStarts = 0;
    int64_t lostBlocksBefore = 0;
    SoakResult found;
};

}  // namespace board
