// SPDX-License-Identifier: Apache-2.0
// Sounds that tell where they come from, WAV files, and measures of what was recorded.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace board {

constexpr int kRate = 48000;

using Samples = std::vector<int16_t>;

// A sound: the sample of each frame, counted from its beginning. Any thread.
using Voice = std::function<int16_t(int64_t frame)>;

int16_t silence(int64_t frame);
// The frame's index modulo 65536: a recorded value names the frame, also between two frames.
int16_t ramp(int64_t frame);
// Every stretch of it occurs once: what was recorded can be found in it to the frame.
int16_t noise(int64_t frame);
// A room's murmur, too soft to hear, in which every stretch occurs once as well; never quite
// silent.
int16_t murmur(int64_t frame);
// A steady tone of `hz`, amplitude 8000.
Voice sine(double hz);
// Recorded samples from frame `from` on, murmur before and after.
Voice speech(Samples samples, int64_t from);

Samples render(const Voice& voice, int64_t from, int64_t frames);

// Where the samples of `heard` from `from` on are in `played`, found by the first of them; -1 when
// nowhere.
int64_t find(const Samples& heard, size_t from, const Samples& played);
// Where the whole of `part` is in `whole`, sample by sample; -1 when nowhere.
int64_t findWhole(const Samples& part, const Samples& whole);

// The largest second difference of the samples in [from, to): a click is a large one.
int largestSecondDifference(const Samples& samples, size_t from, size_t to);

// The first sample that is not 0, or the size.
size_t firstSound(const Samples& samples);

// RIFF WAV, signed 16 bit, 48000 Hz. Reading takes the left channel; both throw on failure.
Samples readWav(const std::string& path);
void writeWav(const std::string& path, const Samples& samples);

}  // namespace board
