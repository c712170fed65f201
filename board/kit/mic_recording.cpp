// SPDX-License-Identifier: Apache-2.0
#include "board/kit/mic_recording.h"

#include <algorithm>
#include <utility>

namespace board {
namespace {

constexpr int kFrame = MicRecording::kFrame;
constexpr int kStretchedInput = kFrame - 1;
constexpr int kSqueezedInput = kFrame + 1;
constexpr int64_t kLossMax = 2 * kRate;  // how far ahead a lost place is looked for
// A search takes far longer than its frame. After this many in vain, all that follows counts as
// unexplained.
constexpr int kSearchesMax = 50;

struct Shape {
    int consumed;
    FrameKind kind;
};
constexpr Shape kShapes[] = {{kFrame, FrameKind::kCopied},
                             {kStretchedInput, FrameKind::kStretched},
                             {kSqueezedInput, FrameKind::kSqueezed}};

// `in` stretched or squeezed to one frame: position i lies at i times the step, in 1/65536.
Samples resample(const Samples& in) {
    const auto step = static_cast<int64_t>(
        static_cast<double>(static_cast<float>(in.size() - 1) / static_cast<float>(kFrame - 1)) *
            65536.0 +
        0.5);
    Samples out(kFrame);
    out.front() = in.front();
    out.back() = in.back();
    for (size_t i = 1; i + 1 < out.size(); ++i) {
        const int64_t position = static_cast<int64_t>(i) * step;
        const auto k = static_cast<size_t>(position >> 16);
        const int64_t product = (in[k + 1] - in[k]) * (position & 0xFFFF) + 32768;
        out[i] = static_cast<int16_t>(in[k] + (product >> 16));
    }
    return out;
}

bool isSilent(const int16_t* frame) {
    return std::all_of(frame, frame + kFrame, [](int16_t sample) { return sample == 0; });
}

}  // namespace

MicRecording::MicRecording(Voice sent) : sent(std::move(sent)) {}

std::vector<MicFrame> MicRecording::add(const Samples& recorded) {
    pending.insert(pending.end(), recorded.begin(), recorded.end());
    std::vector<MicFrame> frames;
    size_t at = 0;
    for (; at + kFrame <= pending.size(); at += kFrame) {
        const int64_t sentAt = nextSent;
        const FrameKind kind = explain(pending.data() + at);
        ++counts[static_cast<size_t>(kind)];
        frames.push_back({recordedAt, sentAt + skipped, lead, kind, skipped});
        recordedAt += kFrame;
    }
    pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(at));
    return frames;
}

FrameKind MicRecording::explain(const int16_t* frame) {
    lead = 0;
    skipped = 0;
    FrameKind kind = FrameKind::kUnexplained;
    if (searches == kSearchesMax) {
        return kind;
    }
    if (!priming && follow(frame, 0, &kind)) {
        return kind;
    }
    if (isSilent(frame)) {
        priming = true;
        return FrameKind::kSilent;
    }
    if (priming) {
        for (int64_t zeros = 0; zeros <= kFrame; ++zeros) {
            if (follow(frame, zeros, &kind)) {
                priming = false;
                return kind;
            }
        }
    }
    if (isStarved(frame)) {
        priming = true;
        return FrameKind::kStarved;
    }
    searches = findAgain(frame, &kind) ? 0 : searches + 1;
    return FrameKind::kUnexplained;
}

bool MicRecording::follow(const int16_t* frame, int64_t zeros, FrameKind* kind) {
    // Most candidates differ in the first sample that is not padding.
    if (zeros < kFrame && frame[0] != (zeros > 0 ? 0 : sent(nextSent))) {
        return false;
    }
    for (const Shape& shape : kShapes) {
        const Samples wanted = expected(zeros, shape.consumed, shape.consumed);
        if (std::equal(wanted.begin(), wanted.end(), frame)) {
            nextSent += std::max<int64_t>(0, shape.consumed - zeros);
            lead = zeros;
            *kind = shape.kind;
            return true;
        }
    }
    return false;
}

// The daemon had fewer samples than a period needs and filled it up with silence.
bool MicRecording::isStarved(const int16_t* frame) {
    for (int available = 1; available < kStretchedInput; ++available) {
        const Samples wanted = expected(0, kStretchedInput, available);
        if (std::equal(wanted.begin(), wanted.end(), frame)) {
            nextSent += available;
            return true;
        }
    }
    return false;
}

// Samples were lost: searches ahead for the place that this frame continues.
bool MicRecording::findAgain(const int16_t* frame, FrameKind* kind) {
    const int64_t before = nextSent;
    for (int64_t lost = 1; lost <= kLossMax; ++lost) {
        nextSent = before + lost;
        if (follow(frame, 0, kind)) {
            skipped = lost;
            priming = false;
            return true;
        }
    }
    nextSent = before;
    return false;
}

Samples MicRecording::expected(int64_t zeros, int consumed, int available) const {
    Samples in(static_cast<size_t>(consumed));
    for (int64_t i = std::min<int64_t>(zeros, consumed); i < available; ++i) {
        in[static_cast<size_t>(i)] = sent(nextSent + i - zeros);
    }
    return consumed == kFrame ? in : resample(in);
}

}  // namespace board
