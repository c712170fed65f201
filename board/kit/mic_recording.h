// SPDX-License-Identifier: Apache-2.0
// Explains what the host recorded from the daemon, playback frame by playback frame: each frame of
// 240 samples must be silence, 240 samples that the app sent, or 239 or 241 of them stretched or
// squeezed to 240 by linear interpolation. Frames that none of these explains are counted as
// errors.
#pragma once

#include <cstdint>
#include <vector>

#include "board/kit/sound.h"

namespace board {

enum class FrameKind { kSilent, kCopied, kStretched, kSqueezed, kStarved, kUnexplained };

struct MicFrame {
    int64_t recordedAt;  // its first sample, counted from the beginning of the recording
    int64_t sentAt;      // the first sample of it that was consumed
    int64_t lead;        // silent samples before that one
    FrameKind kind;
    int64_t skipped;  // samples that are missing before it; what follows them is found again
    // How many samples latency control added to the frame.
    int gain() const {
        return kind == FrameKind::kStretched ? 1 : kind == FrameKind::kSqueezed ? -1 : 0;
    }
};

class MicRecording {
  public:
    // `sent` gives the samples that went into the daemon, in order.
    explicit MicRecording(Voice sent);

    // Adds more of the recording, which begins with a playback frame. Returns the completed frames.
    std::vector<MicFrame> add(const Samples& recorded);

    int64_t frames() const { return recordedAt / kFrame; }
    // Samples sent that come before the end of the last frame.
    int64_t consumed() const { return nextSent; }
    int64_t count(FrameKind kind) const { return counts[static_cast<size_t>(kind)]; }
    static constexpr int kFrame = 240;

  private:
    FrameKind explain(const int16_t* frame);
    bool follow(const int16_t* frame, int64_t zeros, FrameKind* kind);
    bool isStarved(const int16_t* frame);
    bool findAgain(const int16_t* frame, FrameKind* kind);
    // What the daemon makes of `consumed` samples from nextSent on, after `zeros` zeros.
    Samples expected(int64_t zeros, int consumed, int available) const;

    const Voice sent;
    Samples pending;
    int64_t recordedAt = 0;
    int64_t nextSent = 0;
    int64_t lead = 0;     // of the frame explained last
    int64_t skipped = 0;  // before the frame explained last
    bool priming = true;  // silence may precede what comes next
    int searches = 0;     // in a row that found no place
    int64_t counts[6] = {};
};

}  // namespace board
