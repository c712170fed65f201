// SPDX-License-Identifier: Apache-2.0
// Sends a ramp in one direction and checks what arrives: sections of unbroken sound, what is
// missing or repeated between them, and the latency at each moment. Frames that latency control
// stretches or squeezes do not break a section.
//
// For one stream, from on to off, and one app. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "board/kit/audio_host.h"
#include "board/kit/board.h"
#include "board/kit/host.h"
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

// The frame that was heard or sent at one moment.
struct Point {
    Ns at;
    int64_t frame;
};

class RampCheck {
  public:
    // Sends the ramp from now on; switch the host's stream on next.
    RampCheck(Board* board, const Direction& direction);

    // Collects what was heard since the last call. Call it at least once in 40 s, before the host's
    // stream goes off, and before it stalls.
    void collect();
    // The sections of what was collected.
    const std::vector<Section>& sections();
    std::vector<Break> breaks();
    // The breaks in which sound is missing or repeated. A microphone's buffer that runs dry loses
    // none, but fades into silence within a sample.
    std::vector<Break> losses();
    // Missing frames minus repeated ones.
    int64_t lost();
    // The latency of what was heard in [from, to).
    Spread latency(Ns from, Ns to);

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
};

}  // namespace board
