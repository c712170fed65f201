// SPDX-License-Identifier: Apache-2.0
#include "board/kit/mic_stream.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace board {
namespace {

constexpr int64_t kBlockFrames = 480;
constexpr int64_t kUsbFrameFrames = 48;
// What lies between a read of the daemon's and the USB frame that takes the first sample of it: two
// periods of the card's ring, and the USB frame.
constexpr int64_t kRingFrames = 2 * 240 + kUsbFrameFrames;
constexpr double kNsPerFrame = static_cast<double>(kSecond) / kRate;

}  // namespace

MicStream::MicStream(Board* board, Voice voice)
    : board_(board), voice_(std::move(voice)), trace_([this](int64_t i) { return sent(i); }) {
    board->app->speak(voice_);
    board->host.command("flush mic");
    sleepFor(30 * kMs);  // blocks of the voice before are past
    blocksBefore_ = board->app->sentBlocks().size();
    onAt_ = now();
    board->host.command("mic on");
}

void MicStream::observe() {
    std::vector<SentBlock> all = board_->app->sentBlocks();
    Samples recorded = board_->host.takeRecording();
    const auto values = board_->host.counters();
    blocks_.assign(all.begin() + static_cast<std::ptrdiff_t>(blocksBefore_), all.end());
    if (!begun_) {
        if (values.at("mic.first_ns") == 0 || blocks_.empty()) {
            return;
        }
        // The recording begins with the host's stream, the daemon's part of it a little later.
        const int64_t skipped = values.at("mic.first_frames") - values.at("mic.on_frames");
        recorded.erase(recorded.begin(), recorded.begin() + static_cast<std::ptrdiff_t>(skipped));
        beginsAt_ = values.at("mic.first_ns");
        begun_ = true;
    }
    if (keeps_) {
        recorded_.insert(recorded_.end(), recorded.begin(), recorded.end());
    }
    // The frames that moved last moved together.
    const double hostRate = 1 + static_cast<double>(values.at("ppb")) / 1e9;
    const Anchor anchor{values.at("mic.frames") - kUsbFrameFrames - values.at("mic.first_frames"),
                        values.at("mic.last_ns"), kNsPerFrame / hostRate};
    for (const MicFrame& frame : trace_.add(recorded)) {
        frames_.push_back(frame);
        addLatency(frame, anchor);
    }
}

void MicStream::off() {
    observe();
    const size_t messages = board_->app->messages().size();
    board_->host.command("mic off");
    if (!board_->waitForChannel(2, false, messages)) {
        throw std::runtime_error("the microphone channel does not stop");
    }
}

int64_t MicStream::sentFrames() const {
    return static_cast<int64_t>(blocks_.size()) * kBlockFrames;
}

int16_t MicStream::sent(int64_t index) const {
    const auto block = static_cast<size_t>(index / kBlockFrames);
    return block < blocks_.size() ? voice_(blocks_[block].firstFrame + index % kBlockFrames)
                                  : int16_t{0};
}

void MicStream::addLatency(const MicFrame& frame, const Anchor& anchor) {
    const auto block = static_cast<size_t>(frame.sentAt / kBlockFrames);
    if (frame.kind == FrameKind::kSilent || frame.kind == FrameKind::kUnexplained ||
        block >= blocks_.size()) {
        return;
    }
    // The app's samples leave in blocks but are thought of as evenly spaced in time.
    const double sentAt = static_cast<double>(blocks_[block].at) +
                          static_cast<double>(frame.sentAt % kBlockFrames) * kNsPerFrame;
    const auto position = static_cast<double>(frame.recordedAt + frame.lead - anchor.recorded);
    const double recordedAt = static_cast<double>(anchor.at) + position * anchor.nsPerFrame;
    const Ns takenAt = static_cast<Ns>(recordedAt - kRingFrames * anchor.nsPerFrame);
    const auto written =
        std::upper_bound(blocks_.begin(), blocks_.end(), takenAt,
                         [](Ns at, const SentBlock& sent) { return at < sent.at; });
    latencies_.push_back({frame.recordedAt, static_cast<Ns>(recordedAt),
                          static_cast<Ns>(recordedAt - sentAt),
                          (written - blocks_.begin()) * kBlockFrames - frame.sentAt, frame.gain()});
}

int64_t MicStream::settledAt() const {
    for (size_t i = frames_.size(); i > 0; --i) {
        if (frames_[i - 1].kind != FrameKind::kCopied) {
            return frames_[i - 1].recordedAt + MicTrace::kFrame;
        }
    }
    return 0;
}

Ns MicStream::timeToSound() const {
    for (const MicFrame& frame : frames_) {
        if (frame.kind != FrameKind::kSilent) {
            return beginsAt_ +
                   static_cast<Ns>(static_cast<double>(frame.recordedAt) * kNsPerFrame) - onAt_;
        }
    }
    return -1;
}

}  // namespace board
