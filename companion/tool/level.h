// SPDX-License-Identifier: Apache-2.0
// The level of the host's sound, in dB relative to full scale. One thread.
#pragma once

#include <cstdint>
#include <string>

namespace uafd {

class Level {
  public:
    // `frames` stereo frames, whose channels are equal.
    void add(const int16_t* samples, int frames);
    void reset() { *this = Level(); }

    // Of everything since the last reset; of silence, or of nothing, the quietest level of 16 bits.
    double peakDb() const;
    double rmsDb() const;

  private:
    double peak = 0;
    double squares = 0;
    int64_t frameCount = 0;
};

// The level as a bar of '#' that is this wide, filled up with spaces.
std::string barOf(double levelDb, int width);

}  // namespace uafd
