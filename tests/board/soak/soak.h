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
#include "tests/board/soak/mic_way.h"
#include "tests/board/soak/speaker_way.h"

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

class Soak {
  public:
    explicit Soak(const SoakPlan& plan) : plan_(plan) {}
    // Throws when the board does not come up; what else is wrong is in the result.
    void run();

    const SoakPlan& plan() const { return plan_; }
    Ns begin() const { return begin_; }
    const SpeakerWay& speaker() const { return *speaker_; }
    const MicWay& mic() const { return *mic_; }
    const std::vector<Outcome>& outcomes() const { return outcomes_; }
    // With both directions streaming, at the first and at the last look.
    const Holdings& first() const { return first_; }
    const Holdings& last() const { return last_; }
    // The hours that are full.
    const std::vector<Hour>& hours() const { return hours_; }
    // Xruns that were not injected.
    int64_t xruns() const { return xruns_; }
    // How long the app's jitter was more than the daemon's buffer held.
    int strainedSeconds() const { return strainedSeconds_; }
    // The most, in samples, that latency control gained more or less in a calm stretch than the
    // clocks differ.
    double gainError() const { return gainError_; }
    // What is wrong with the daemon at the end, or nothing.
    const std::string& damage() const { return damage_; }

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

    const SoakPlan plan_;
    Board board_{"soak"};
    std::unique_ptr<HostPlayer> player_;
    std::unique_ptr<SpeakerWay> speaker_;
    std::unique_ptr<MicWay> mic_;
    StreamClock speakerClock_;
    StreamClock micClock_;
    Ns begin_ = 0;
    size_t logMark_ = 0;  // of the daemon's log, when the stream last began
    int64_t playbackStarts_ = 0;
    int64_t lostBlocks_ = 0;
    std::vector<Outcome> outcomes_;
    Holdings first_;
    Holdings last_;
    std::vector<Hour> hours_;
    int64_t xruns_ = 0;
    int strainedSeconds_ = 0;
    double gainError_ = 0;
    std::string damage_;
};

}  // namespace board
