// SPDX-License-Identifier: Apache-2.0
// From a card to the host: what the card hears comes at the card's pace and goes out in blocks of
// 10 ms by the board's clock. The card runs while the host records, which shows in that the daemon
// takes the blocks. One thread.
#pragma once

#include <cstdint>
#include <vector>

#include "companion/bridge/path.h"

namespace uafd {

class Microphone : public Path {
  public:
    // `latencyMs`: of the sound in the bridge, with its block; more where the card's periods need
    // it.
    explicit Microphone(double latencyMs) : Path(latencyMs) {}

    // The card to hear, or null. 0, or -ENOMEM.
    int attach(Card* newCard);
    // Fills a block of UAFD_BLOCK_FRAMES stereo frames, which is silent before. 0, or the card's
    // error.
    int fill(int16_t* block, int64_t nowNs);
    // The daemon has taken the block.
    void onTaken() { refusedBlocks = 0; }

    PathFacts facts() const;

  private:
    int stop();
    int capture();
    void begin(int64_t nowNs);
    void give(int16_t* block, int64_t nowNs);
    void put(size_t frames, bool fadesOut, int16_t* block);

    std::vector<float> caught;
    std::vector<float> waiting;
    bool isFlowing = false;  // enough is waiting
    int refusedBlocks = 0;   // since the daemon last took one
};

}  // namespace uafd
