// SPDX-License-Identifier: Apache-2.0
// From a card to the host: what the card hears comes at the card's pace and goes out in blocks of
// 10 ms by the board's clock. The card runs while the host records, which shows in that the daemon
// takes the blocks. One thread.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "companion/bridge/card.h"
#include "companion/bridge/fill_control.h"
#include "companion/bridge/gain.h"
#include "companion/bridge/path.h"
#include "companion/bridge/resampler.h"

namespace uafd {

class Microphone {
  public:
    // `latencyMs`: of the sound in the bridge, with its block; more where the card's periods need
    // it.
    explicit Microphone(double latencyMs) : latencyMs(latencyMs) {}

    // The card to hear, or null. 0, or -ENOMEM.
    int attach(Card* newCard);
    // Fills a block of UAFD_BLOCK_FRAMES stereo frames, which is silent before. 0, or the card's
    // error.
    int fill(int16_t* block, int64_t nowNs);
    // The daemon has taken the block.
    void onTaken() { refusedBlocks = 0; }

    Gain gain;
    PathFacts facts() const;
    // The largest sample since the last call, 1 is full scale.
    float takePeak() { return peak.take(); }

  private:
    int stop();
    int capture();
    void begin(int64_t nowNs);
    void give(int16_t* block, int64_t nowNs);
    void put(size_t frames, bool fadesOut, int16_t* block);

    const double latencyMs;
    Card* card = nullptr;
    Resampler resampler;
    std::optional<FillControl> control;
    size_t target = 0;  // frames waiting when a block is due
    std::vector<float> caught;
    std::vector<float> waiting;
    bool isRunning = false;  // the card
    bool isFlowing = false;  // enough is waiting
    size_t filled = 0;       // frames that waited for the last block
    int64_t controlNs = 0;   // when the control loop was last asked
    int refusedBlocks = 0;   // since the daemon last took one
    PathCounts counts;
    Peak peak;
};

}  // namespace uafd
