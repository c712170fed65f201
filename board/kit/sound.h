// SPDX-License-Identifier: Apache-2.0
// Sounds in which every position can be recognised, WAV files, and measures of recordings.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace board {

constexpr int kRate = 48000;
constexpr int64_t kFramesPerUsbFrame = 48;  // a millisecond of the host

using Samples = std::vector<int16_t>;

// A sound: the sample of each frame, counted from its beginning. Any thread.
using Voice = std::function<int16_t(int64_t frame)>;

int16_t silence(int64_t frame);
// The frame's index modulo 65536: a recorded value identifies the frame, even between two frames.
int16_t ramp(int64_t frame);
// No part of it repeats: a recording can be located in it to the frame.
int16_t noise(int64_t frame);
// A room's murmur, too soft to hear but never quite silent, of which no part repeats either.
int16_t murmur(int64_t frame);
// A steady tone of `hz`, amplitude 8000.
Voice sine(double hz);
// Recorded samples from frame `from` on, murmur before and after.
Voice speech(Samples samples, int64_t from);

Samples render(const Voice& voice, int64_t from, int64_t frames);

// The position in `played` of the samples of `heard` that begin at `from`, found by the first of
// them; -1 if there is none.
int64_t find(const Samples& heard, size_t from, const Samples& played);
// The position at which `whole` contains all of `part`; -1 if there is none.
int64_t findWhole(const Samples& part, const Samples& whole);

// Where a recording misses frames.
struct Gap {
    int64_t at;       // the recording's frame before which frames are missing
    int64_t missing;  // how many; -1: what follows is not of the voice
    bool operator==(const Gap& other) const { return at == other.at && missing == other.missing; }
};
inline void PrintTo(const Gap& gap, std::ostream* out) {
    *out << gap.missing << " before frame " << gap.at;
}
// The recording is silence and then `voice`, in which every stretch occurs once, from its first
// frame on.
std::vector<Gap> findGaps(const Samples& recording, const Voice& voice);
// How often a recording of the ramp breaks: in [from, to), or from its first sound on.
int breaksIn(const Samples& recording, size_t from, size_t to);
int breaksIn(const Samples& recording);

// How often the samples in [from, to) cross zero upwards: a tone's periods.
int upwardCrossings(const Samples& samples, size_t from, size_t to);
// The largest second difference of the samples in [from, to): a click is a large one.
int largestSecondDifference(const Samples& samples, size_t from, size_t to);

// The first sample that is not 0, or the size.
size_t firstSound(const Samples& samples);

// RIFF WAV, signed 16 bit, 48000 Hz. Reading takes the left channel; both throw on failure.
Samples readWav(const std::string& path);
void writeWav(const std::string& path, const Samples& samples);

}  // namespace board
