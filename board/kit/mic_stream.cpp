// SPDX-License-Identifier: Apache-2.0
#include "board/kit/mic_stream.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace board {
namespace {

constexpr int64_t kBlockFrames = 480;
// The time between the daemon's read and the USB frame that takes the first sample of it out of the
// card's ring: two periods, and the USB frame itself.
constexpr int64_t kRingFrames = 2 * 240 + kFramesPerUsbFrame;
constexpr double kNsPerFrame = static_cast<double>(kSecond) / kRate;

}  // namespace

MicStream::MicStream(DaemonBoard* board, Voice sentVoice)
    : board(board),
      voice(std::move(sentVoice)),
      explainedRecording([this](int64_t i) { return sent(i); }) {
    board->app->speak(voice);
    sleepFor(30 * kMs);  // blocks of the voice before are past
    blocksBefore = board->app->sentBlocks().size();
    onAt = now();
    board->audioHost().record();
}

void MicStream::observe() {
    AudioHost& host = board->audioHost();
    const std::vector<SentBlock> all = board->app->sentBlocks();
    const Samples more = host.takeRecording();
    StreamPosition position = host.position(kMicDirection);
    blocks.assign(all.begin() + static_cast<std::ptrdiff_t>(blocksBefore), all.end());
    unexplained.insert(unexplained.end(), more.begin(), more.end());
    if (!firstFrame) {
        firstFrame = host.daemonsFirstFrame();
        if (!firstFrame) {
            return;
        }
        // The recording begins with the host's stream; the daemon's sound begins a little later.
        beginsAt = position.timeOf(*firstFrame);
        unexplained.erase(unexplained.begin(), unexplained.begin() + *firstFrame);
    }
    if (keepsRecording) {
        recording.insert(recording.end(), unexplained.begin(), unexplained.end());
    }
    position.frames -= *firstFrame;
    for (const MicFrame& frame : explainedRecording.add(unexplained)) {
        micFrames.push_back(frame);
        addLatency(frame, position);
    }
    unexplained.clear();
}

void MicStream::off() {
    observe();
    const size_t messages = board->app->messages().size();
    board->audioHost().stopRecording();
    if (!board->waitForChannel(2, false, messages)) {
        throw std::runtime_error("the microphone channel does not stop");
    }
}

int64_t MicStream::sentFrames() const {
    return static_cast<int64_t>(blocks.size()) * kBlockFrames;
}

int16_t MicStream::sent(int64_t index) const {
    const auto block = static_cast<size_t>(index / kBlockFrames);
    return block < blocks.size() ? voice(blocks[block].firstFrame + index % kBlockFrames)
                                 : int16_t{0};
}

void MicStream::addLatency(const MicFrame& frame, const StreamPosition& recorded) {
    const auto block = static_cast<size_t>(frame.sentAt / kBlockFrames);
    if (frame.kind == FrameKind::kSilent || frame.kind == FrameKind::kUnexplained ||
        block >= blocks.size()) {
        return;
    }
    // The app writes blocks; its samples count as evenly spaced in time.
    const double sentAt = static_cast<double>(blocks[block].at) +
                          static_cast<double>(frame.sentAt % kBlockFrames) * kNsPerFrame;
    // The newest frames all moved at the same time.
    const int64_t newest = recorded.frames - kFramesPerUsbFrame;
    const auto since = static_cast<double>(frame.recordedAt + frame.lead - newest);
    const double recordedAt = static_cast<double>(recorded.at) + since * recorded.nsPerFrame;
    const auto ahead = static_cast<double>(kRingFrames + board->audioHost().preparedFrames());
    const Ns takenAt = static_cast<Ns>(recordedAt - ahead * recorded.nsPerFrame);
    const auto written =
        std::upper_bound(blocks.begin(), blocks.end(), takenAt,
                         [](Ns at, const SentBlock& sent) { return at < sent.at; });
    frameLatencies.push_back(
        {frame.recordedAt, static_cast<Ns>(recordedAt), static_cast<Ns>(recordedAt - sentAt),
         (written - blocks.begin()) * kBlockFrames - frame.sentAt, frame.gain()});
}

int64_t MicStream::settledAt() const {
    for (size_t i = micFrames.size(); i > 0; --i) {
        if (micFrames[i - 1].kind != FrameKind::kCopied) {
            return micFrames[i - 1].recordedAt + MicRecording::kFrame;
        }
    }
    return 0;
}

Ns MicStream::timeToSound() const {
    for (const MicFrame& frame : micFrames) {
        if (frame.kind != FrameKind::kSilent) {
            return beginsAt + static_cast<Ns>(static_cast<double>(frame.recordedAt) * kNsPerFrame) -
                   onAt;
        }
    }
    return -1;
}

}  // namespace board
