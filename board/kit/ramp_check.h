// SPDX-License-Identifier: Apache-2.0
// A ramp sent one way, and what became of it: sections of unbroken sound, what is missing or comes
// again between them, and the latency of each moment. Latency control's drawing out and pressing
// breaks nothing.
//
// One host stream, from on to off, and one app in its life. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "board/kit/board.h"
#include "board/kit/direction.h"
#include "board/kit/host_player.h"
#include "board/kit/statistics.h"

namespace board {

// Unbroken sound.
struct Section {
    int64_t at;      // its first sample, counted in what was heard
    int64_t frames;  // samples heard
    int64_t first;   // frames of the ramp: the first
    int64_t last;    // and the last one in it
    Ns begin;        // when the first was heard
    Ns end;          // and the last
};

// What lies between two sections.
struct Break {
    Ns at;           // when the section before ended
    int64_t silent;  // samples of silence
    int64_t lost;    // frames of the ramp that are missing; negative: that come again
};

// What was heard or sent from one moment on.
struct Point {
    Ns at;
    int64_t frame;
};

class RampCheck {
  public:
    // The ramp is sent from now on; the host's stream is to be switched on next.
    RampCheck(Board* board, const Direction& direction);

    // Takes what was heard since the last call; at least once in 40 s, before the host's stream
    // goes off, and before it stalls.
    void collect();
    // Of what was collected.
    const std::vector<Section>& sections();
    std::vector<Break> breaks();
    // Those in which sound is missing or comes again. A microphone's buffer that runs dry loses
    // none, but fades within a sample into the silence.
    std::vector<Break> losses();
    // Frames missing, less those that came again.
    int64_t lost();
    // From the sending to the hearing, of what was heard in [from, to).
    Spread latency(Ns from, Ns to);
    // Samples that are neither silence nor ramp.
    int64_t strange();

  private:
    bool isSpeaker() const { return direction == kSpeakerDirection; }
    void collectHeard();
    void collectRecorded();
    Ns sentAt(int64_t frame) const;
    int64_t frameSentBy(Ns at) const;
    int64_t frameNamed(int16_t value, Ns heardAt, int64_t previous) const;
    std::vector<Ns> latencies(const Section& section, Ns from, Ns to) const;

    Board* const board;
    const Direction direction;
    std::unique_ptr<HostPlayer> player;  // of the speaker
    Samples heardSamples;
    std::vector<Point> heardPoints;
    std::vector<Point> sentPoints;
    size_t analysed = 0;  // samples, by what follows
    std::vector<Section> foundSections;
    int64_t strangeSamples = 0;
};

}  // namespace board
