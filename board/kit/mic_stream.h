// SPDX-License-Identifier: Apache-2.0
// Observes the microphone direction while it streams: finds each sample that the app sent in what
// the host recorded. Begin with the app speaking and the host's stream off. One thread.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "board/kit/daemon_board.h"
#include "board/kit/mic_recording.h"

namespace board {

// A playback frame that carries the app's sound.
struct MicLatency {
    int64_t recordedAt;  // sample of the recording, counted from the daemon's first
    Ns at;               // when that was recorded
    Ns latency;          // from the app's write to the host's recording
    int64_t waiting;     // samples that the app had written when the daemon took the frame's first
    int gain;            // by latency control, samples
};

class MicStream {
  public:
    // Switches the stream on; the app's voice must not change from the first block sent on.
    MicStream(DaemonBoard* board, Voice sentVoice);

    // Keeps what is recorded from the daemon's first sample on.
    void keepRecording() { keepsRecording = true; }
    const Samples& recorded() const { return recording; }
    // Takes what was recorded since the last call. Call it at least once in 40 s, and before the
    // host's clock changes its offset.
    void observe();
    void off();

    const MicRecording& explained() const { return explainedRecording; }
    const std::vector<MicFrame>& frames() const { return micFrames; }
    // What the app has written into its FIFO.
    int64_t sentFrames() const;
    // One for every frame that carries the app's sound.
    const std::vector<MicLatency>& latencies() const { return frameLatencies; }
    // Recorded samples up to the last frame before which something had to be explained.
    int64_t settledAt() const;
    // Time from the stream's start to the app's first sample in the recording.
    Ns timeToSound() const;

  private:
    int16_t sent(int64_t index) const;
    void addLatency(const MicFrame& frame, const StreamPosition& recorded);

    DaemonBoard* const board;
    const Voice voice;
    MicRecording explainedRecording;
    std::vector<MicFrame> micFrames;
    std::vector<MicLatency> frameLatencies;
    std::vector<SentBlock> blocks;  // what the daemon was sent since the start
    size_t blocksBefore = 0;
    Ns onAt = 0;
    std::optional<int64_t> firstFrame;  // of the recording: the daemon's first
    bool keepsRecording = false;
    Samples recording;
    Samples unexplained;  // recorded while the daemon's first frame is not known
    Ns beginsAt = 0;      // when the daemon's first sample was recorded
};

}  // namespace board
