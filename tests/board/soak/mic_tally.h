// SPDX-License-Identifier: Apache-2.0
// The microphone's direction of a soak: explains each playback frame of the host's recording by
// what the app's FIFO took. One thread.
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
    // The recording begins with frame `recordingBegin` of the host's stream. The app has sent the
    // tone since its first block; `timeOfFrame` returns when the app's clock reached a frame of it.
    MicTally(Window window, int64_t recordingBegin, std::function<Ns(int64_t)> timeOfFrame);

    // The daemon's playback has started again with frame `begin` of the host's stream: its frames
    // are counted from there, and recorded samples that were not yet examined are dropped.
    void restart(int64_t begin);
    // Adds blocks in the order in which they were sent.
    void addSent(const std::vector<SentBlock>& blocks);
    void add(Samples recorded, const StreamClock& clock);

  private:
    // Blocks whose frames follow each other.
    struct Run {
        int64_t sample;      // index of the first one among all sent samples
        int64_t voiceFrame;  // index of its frame in the tone
    };

    int64_t voiceFrameOf(int64_t sample) const;
    void addFrame(const MicFrame& frame, const StreamClock& clock);
    void countSkipped(int64_t samples);

    const std::function<Ns(int64_t)> timeOfFrame;
    std::vector<Run> runs;
    int64_t sentSamples = 0;
    int64_t streamAt;            // the frame of the host's stream that is recorded next
    int64_t recordingBegin;      // the frame with which the recording begins
    int64_t consumedBefore = 0;  // samples before the recording began
    std::unique_ptr<MicRecording> recording;
    int64_t unexplained = 0;  // samples since the last explained frame
    ClickCounter clicks;
};

}  // namespace board
