// SPDX-License-Identifier: Apache-2.0
#include "tools/drift/mic_path.h"

#include <algorithm>
#include <new>

#include "channel/uaf_src.h"

namespace drift {
namespace {

constexpr int kPipeFrames = 1024;  // the least that a pipe holds: a page of stereo frames
constexpr int kRingPeriods = kSourceRingFrames / kPeriodFrames;
constexpr Ns kPeriod = int64_t{kPeriodFrames} * kSecond / kSampleRateHz;
constexpr Ns kUsbFrame = kMs;  // a sample moves with its USB frame, at that frame's end
constexpr int64_t kMillion = 1000000;

// What is written does not matter, only where it goes.
constexpr int16_t kBlock[kFifoBlockFrames] = {};

}  // namespace

MicPath::MicPath(const Scenario& scenario)
    : scenario_(scenario), writes_(scenario), nextWrite_(writes_.next()) {
    const bool hasStorage = buffer_.allocateStorage();
    buffer_.build();
    if (!hasStorage || buffer_.context() == nullptr) {
        throw std::bad_alloc();
    }
}

// The daemon fills the ring before it starts: with a silent period, and then with frames.
Reading MicPath::read() {
    const int64_t ahead = kRingPeriods - 1;
    const Ns at = hostTime(std::max<int64_t>(reads_ + 1 - ahead, 0));
    while (nextWrite_.at <= at) {
        takeWrite(nextWrite_);
        nextWrite_ = writes_.next();
    }
    const SSRS_Stats before = statistics();
    Reading reading{at,    depth(), buffer_.context()->qDepthLow, buffer_.context()->qDepthHigh, 0,
                    false, -1};
    int16_t frame[kPeriodFrames];
    buffer_.read(frame);
    const SSRS_Stats after = statistics();
    reading.correction = static_cast<int>(after.stretchCnt - before.stretchCnt) -
                         static_cast<int>(after.compressCnt - before.compressCnt);
    reading.starved = reading.depth < kPeriodFrames - reading.correction;
    const int taken = reading.depth - depth();
    reading.latency = latencyOf(hostTime(reads_ + 1) + kUsbFrame, taken);
    consume(taken);
    counts_.stretches = after.stretchCnt;
    counts_.squeezes = after.compressCnt;
    counts_.underruns = after.underruns;
    if (reading.starved && counts_.written > 0) {
        counts_.emptyReads += reading.depth == 0 ? 1 : 0;
        counts_.silent += kPeriodFrames - reading.correction - reading.depth;
    }
    ++reads_;
    return reading;
}

// One pass of the buffer thread takes a block or, at the end of a write or of the pipe's page,
// less.
void MicPath::takeWrite(const AppWrite& write) {
    counts_.written += scenario_.blockFrames;
    int left = scenario_.blockFrames;
    int64_t frame = write.firstFrame;
    while (left > 0) {
        int page = std::min(left, kPipeFrames);
        left -= page;
        while (page > 0) {
            const int fresh = std::min(page, kFifoBlockFrames);
            bufferPass(frame, fresh, write.at);
            frame += fresh;
            page -= fresh;
        }
    }
}

// What a read leaves of the block is taken again as it is.
void MicPath::bufferPass(int64_t frame, int fresh, Ns at) {
    const int before = depth();
    const uint32_t overruns = statistics().overruns;
    const int storage = buffer_.context()->qBuffLen;
    buffer_.write(kBlock, passes_);
    const bool fits = statistics().overruns == overruns;
    const bool enlarged = buffer_.context()->qBuffLen != storage;
    if (!enlarged) {
        const int padding = depth() - before - (fits ? kFifoBlockFrames : 0);
        follow(passes_ == 0 ? Source::kStart : Source::kSilence, 0, padding);
    }
    if (fits) {
        follow(Source::kApp, frame, fresh);
        follow(Source::kStale, frame, kFifoBlockFrames - fresh);
    } else {
        ++counts_.overruns;
        counts_.lost += fresh;
    }
    if (enlarged) {
        discardQueued(at);
    }
    ++passes_;
}

// What enlarging the frame buffer costs.
void MicPath::discardQueued(Ns at) {
    counts_.lost += queued();
    counts_.enlargedAt = at;
    runs_.clear();
}

void MicPath::follow(Source source, int64_t frame, int64_t count) {
    if (count > 0) {
        runs_.push_back({source, frame, count});
    }
}

int MicPath::depth() const {
    uint32_t bytes = 0;
    QUEUE_GetDepth(buffer_.context()->queue, &bytes);
    return static_cast<int>(bytes / sizeof(int16_t));
}

SSRS_Stats MicPath::statistics() const {
    SSRS_Stats stats{};
    SSRS_StatsGet(buffer_.context(), &stats);
    return stats;
}

Ns MicPath::hostTime(int64_t periods) const {
    return periods * kPeriod * kMillion / (kMillion + scenario_.ppm);
}

// Of the first of the app's samples among the `samples` that come next, the first of which is
// played at `playedAt`.
Ns MicPath::latencyOf(Ns playedAt, int64_t samples) const {
    int64_t before = 0;
    for (const Run& run : runs_) {
        if (before >= samples) {
            break;
        }
        if (run.source == Source::kApp) {
            return playedAt + before * kSecond / kSampleRateHz - dueOf(scenario_, run.frame);
        }
        before += run.count;
    }
    return -1;
}

void MicPath::consume(int64_t samples) {
    while (samples > 0) {
        Run& run = runs_.front();
        const int64_t count = std::min(samples, run.count);
        played_ += run.source == Source::kApp ? count : 0;
        counts_.silent += run.source == Source::kSilence ? count : 0;
        counts_.stale += run.source == Source::kStale ? count : 0;
        samples -= count;
        run.frame += count;
        run.count -= count;
        if (run.count == 0) {
            runs_.pop_front();
        }
    }
}

int64_t MicPath::queued() const {
    int64_t samples = 0;
    for (const Run& run : runs_) {
        samples += run.source == Source::kApp ? run.count : 0;
    }
    return samples;
}

}  // namespace drift
