// SPDX-License-Identifier: Apache-2.0
// From the host to a card: what the host plays comes at the host's pace and goes out at the card's.
// The host's sound starts the card, and a pause stops it. One thread.
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

class Speaker {
  public:
    // `latencyMs`: the sound that the card holds ready; more where its periods need it.
    explicit Speaker(double latencyMs) : latencyMs(latencyMs) {}

    // The card to play on, or null. 0, or -ENOMEM.
    int attach(Card* newCard);
    // Plays stereo frames, of which the left sample is heard. 0, or the card's error.
    int play(const int16_t* stereo, size_t frames, int64_t nowNs);
    // Stops the card after a pause. To be called often.
    int watch(int64_t nowNs);

    Gain gain;
    PathFacts facts() const;
    // The largest sample since the last call, 1 is full scale.
    float takePeak() { return peak.take(); }

  private:
    int begin(int64_t nowNs);
    int goOn(int64_t nowNs);
    void convert(const int16_t* stereo, size_t frames);

    const double latencyMs;
    Card* card = nullptr;
    Resampler resampler;
    std::optional<FillControl> control;
    size_t target = 0;  // frames that the card holds after each write
    std::vector<float> heard;
    std::vector<float> made;
    bool isRunning = false;
    int64_t heardNs = 0;    // when sound last came
    int64_t controlNs = 0;  // when the control loop was last asked
    int filled = 0;         // frames that the card held then
    PathCounts counts;
    Peak peak;
};

}  // namespace uafd
