// SPDX-License-Identifier: Apache-2.0
// From the host to a card: what the host plays comes at the host's pace and goes out at the card's.
// The host's sound starts the card, and a pause stops it. One thread.
#pragma once

#include <cstdint>
#include <vector>

#include "companion/bridge/path.h"

namespace uafd {

class Speaker : public Path {
  public:
    // `latencyMs`: the sound that the card holds ready; more where its periods need it.
    explicit Speaker(double latencyMs) : Path(latencyMs) {}

    // The card to play on, or null. 0, or -ENOMEM.
    int attach(Card* newCard);
    // Plays stereo frames, of which the left sample is heard. 0, or the card's error.
    int play(const int16_t* stereo, size_t frames, int64_t nowNs);
    // Stops the card after a pause. To be called often.
    int watch(int64_t nowNs);

    PathFacts facts() const;

  private:
    int begin(int64_t nowNs);
    int goOn(int64_t nowNs);
    void convert(const int16_t* stereo, size_t frames);

    std::vector<float> heard;
    std::vector<float> made;
    int64_t heardNs = 0;  // when sound last came
};

}  // namespace uafd
