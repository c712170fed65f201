// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/mic_tally.h"

#include <algorithm>
#include <utility>

namespace board {
namespace {

constexpr int64_t kBlockFrames = 480;

}  // namespace

MicTally::MicTally(Window window, int64_t recordingBegin, std::function<Ns(int64_t)> timeOfFrame)
    : Tally(window),
      timeOfFrame(std::move(timeOfFrame)),
      streamAt(recordingBegin),
      recordingBegin(recordingBegin) {
    restart(recordingBegin);
}

void MicTally::restart(int64_t begin) {
    consumedBefore += recording ? recording->consumed() : 0;
    recordingBegin = begin;
    recording = std::make_unique<MicRecording>(
        [this](int64_t sample) { return tone().at(voiceFrameOf(consumedBefore + sample)); });
}

void MicTally::addSent(const std::vector<SentBlock>& blocks) {
    for (const SentBlock& block : blocks) {
        if (runs.empty() || voiceFrameOf(sentSamples) != block.firstFrame) {
            runs.push_back({sentSamples, block.firstFrame});
        }
        sentSamples += kBlockFrames;
    }
}

int64_t MicTally::voiceFrameOf(int64_t sample) const {
    auto run = runs.rbegin();
    while (run != runs.rend() && run->sample > sample) {
        ++run;
    }
    return run == runs.rend() ? 0 : run->voiceFrame + sample - run->sample;
}

void MicTally::add(Samples recorded, const StreamClock& clock) {
    const auto size = static_cast<int64_t>(recorded.size());
    counts().clicks += clicks.add(recorded.data(), size);
    const int64_t left = std::clamp<int64_t>(recordingBegin - streamAt, 0, size);
    streamAt += size;
    recorded.erase(recorded.begin(), recorded.begin() + static_cast<std::ptrdiff_t>(left));
    for (const MicFrame& frame : recording->add(recorded)) {
        addFrame(frame, clock);
    }
}

void MicTally::addFrame(const MicFrame& frame, const StreamClock& clock) {
    const Ns at = clock.timeOf(recordingBegin + frame.recordedAt + frame.lead);
    const bool again = frame.kind == FrameKind::kUnexplained && frame.skipped > 0;
    const bool inPlace = frame.kind == FrameKind::kCopied || frame.kind == FrameKind::kStretched ||
                         frame.kind == FrameKind::kSqueezed;
    counts().gained += frame.gain();
    if (inPlace || again) {
        countSkipped(frame.skipped);
        counts().frames += MicRecording::kFrame - frame.lead;
        counts().silent += frame.lead;
        note(at, at - timeOfFrame(voiceFrameOf(consumedBefore + frame.sentAt)));
    } else if (frame.kind == FrameKind::kUnexplained) {
        counts().unexplained += MicRecording::kFrame;
        unexplained += MicRecording::kFrame;
    } else {
        ++counts().underruns;
        counts().silent += frame.kind == FrameKind::kSilent ? MicRecording::kFrame : 0;
    }
    if (!inPlace || frame.lead > 0) {
        noteWrong(at);
    }
}

// The sound jumps within a frame: that frame is not explained, but what it consumed is not lost.
void MicTally::countSkipped(int64_t samples) {
    const int64_t missing = samples - unexplained;
    unexplained = 0;
    if (missing > Tone::kPlaces / 2 || missing < 0) {
        counts().repeated += missing < 0 ? -missing : Tone::kPlaces - missing;
        return;
    }
    counts().lost += missing;
    // Latency control may have gained or lost a sample in this frame, so a dropped block leaves a
    // gap that differs from a block by one.
    counts().overruns += (missing + kBlockFrames / 2) / kBlockFrames;
}

}  // namespace board
