// SPDX-License-Identifier: Apache-2.0
// The microphone's direction of a soak: what the host recorded, explained playback frame by
// playback frame by what the app's FIFO took. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "board/kit/app.h"
#include "board/kit/mic_recording.h"
#include "tests/board/soak/tally.h"
#include "tests/board/soak/tone.h"

namespace board {

class MicTally : public Tally {
  public:
    // The recording begins with frame `recordingBegin` of the host's stream. The app has spoken the
    // tone from its first block on; `timeOfFrame` tells when the app's clock reached a frame of it.
    MicTally(Window window, int64_t recordingBegin, std::function<Ns(int64_t)> timeOfFrame);

    // The daemon's playback begins again with frame `begin` of the host's stream: its frames are
    // counted from there, and what was recorded before and not yet looked at is left out.
    void restart(int64_t begin);
    // In the order in which they were sent.
    void addSent(const std::vector<SentBlock>& blocks);
    void add(Samples recorded, const StreamClock& clock);

  private:
    // Blocks whose frames follow each other.
    struct Run {
        int64_t sample;      // of all that were sent, the first one
        int64_t voiceFrame;  // and its frame of the tone
    };

    int64_t voiceFrameOf(int64_t sample) const;
    void addFrame(const MicFrame& frame, const StreamClock& clock);
    void countSkipped(int64_t samples);

    const std::function<Ns(int64_t)> timeOfFrame;
    std::vector<Run> runs;
    int64_t sentSamples = 0;
    int64_t streamAt;            // the frame of the host's stream that is recorded next
    int64_t recordingBegin;      // the frame with which the recording begins
    int64_t consumedBefore = 0;  // samples, when the recording began
    std::unique_ptr<MicRecording> recording;
    int64_t unexplained = 0;  // samples, since the last frame that was explained
    ClickCounter clicks;
};

}  // namespace board
