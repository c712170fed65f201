// SPDX-License-Identifier: Apache-2.0
#include "tools/drift/mic_simulation.h"

#include <algorithm>
#include <new>

#include "channel/uaf_src.h"

namespace drift {
namespace {

constexpr int kPipeFrames = 1024;  // the smallest pipe: a page of stereo frames
constexpr int kRingPeriods = uafd::kSourceRingFrames / uafd::kPeriodFrames;
constexpr Ns kPeriod = int64_t{uafd::kPeriodFrames} * kSecond / uafd::kSampleRateHz;
constexpr Ns kUsbFrame = kMs;  // a sample moves at the end of its USB frame
constexpr int64_t kMillion = 1000000;

// Any contents will do: only their way through the buffer matters.
constexpr int16_t kBlock[uafd::kFifoBlockFrames] = {};

}  // namespace

MicSimulation::MicSimulation(const Scenario& scenario)
    : scenario(scenario), writes(scenario), nextWrite(writes.next()) {
    const bool hasStorage = buffer.allocateStorage();
    buffer.build();
    if (!hasStorage || buffer.context() == nullptr) {
        throw std::bad_alloc();
    }
}

// Before the daemon starts its playback, it fills the ring with a silent period and then with
// frames.
Reading MicSimulation::read() {
    const int64_t ahead = kRingPeriods - 1;
    const Ns at = hostTime(std::max<int64_t>(reads + 1 - ahead, 0));
    while (nextWrite.at <= at) {
        takeWrite(nextWrite);
        nextWrite = writes.next();
    }
    const SSRS_Stats before = statistics();
    Reading reading{at,    depth(), buffer.context()->qDepthLow, buffer.context()->qDepthHigh, 0,
                    false, -1};
    int16_t frame[uafd::kPeriodFrames];
    buffer.read(frame);
    const SSRS_Stats after = statistics();
    reading.correction = static_cast<int>(after.stretchCnt - before.stretchCnt) -
                         static_cast<int>(after.compressCnt - before.compressCnt);
    reading.starved = reading.depth < uafd::kPeriodFrames - reading.correction;
    const int taken = reading.depth - depth();
    reading.latency = latencyOf(hostTime(reads + 1) + kUsbFrame, taken);
    consume(taken);
    counted.stretches = after.stretchCnt;
    counted.squeezes = after.compressCnt;
    counted.underruns = after.underruns;
    if (reading.starved && counted.written > 0) {
        counted.emptyReads += reading.depth == 0 ? 1 : 0;
        counted.silent += uafd::kPeriodFrames - reading.correction - reading.depth;
    }
    ++reads;
    return reading;
}

// One pass of the buffer thread takes a block, or less at the end of a write or of the pipe's page.
void MicSimulation::takeWrite(const AppWrite& write) {
    counted.written += scenario.blockFrames;
    int left = scenario.blockFrames;
    int64_t frame = write.firstFrame;
    while (left > 0) {
        int page = std::min(left, kPipeFrames);
        left -= page;
        while (page > 0) {
            const int fresh = std::min(page, uafd::kFifoBlockFrames);
            bufferPass(frame, fresh, write.at);
            frame += fresh;
            page -= fresh;
        }
    }
}

// After a short read the rest of the block is used again as it was.
void MicSimulation::bufferPass(int64_t frame, int fresh, Ns at) {
    const int before = depth();
    const uint32_t overruns = statistics().overruns;
    const int storage = buffer.context()->qBuffLen;
    buffer.write(kBlock, passes);
    const bool fits = statistics().overruns == overruns;
    const bool enlarged = buffer.context()->qBuffLen != storage;
    if (!enlarged) {
        const int padding = depth() - before - (fits ? uafd::kFifoBlockFrames : 0);
        follow(passes == 0 ? Source::kStart : Source::kSilence, 0, padding);
    }
    if (fits) {
        follow(Source::kApp, frame, fresh);
        follow(Source::kStale, frame, uafd::kFifoBlockFrames - fresh);
    } else {
        ++counted.overruns;
        counted.lost += fresh;
    }
    if (enlarged) {
        discardQueued(at);
    }
    ++passes;
}

// Counts the samples that are lost when the frame buffer is enlarged.
void MicSimulation::discardQueued(Ns at) {
    counted.lost += queued();
    counted.enlargedAt = at;
    spans.clear();
}

void MicSimulation::follow(Source source, int64_t frame, int64_t count) {
    if (count > 0) {
        spans.push_back({source, frame, count});
    }
}

int MicSimulation::depth() const {
    uint32_t bytes = 0;
    QUEUE_GetDepth(buffer.context()->queue, &bytes);
    return static_cast<int>(bytes / sizeof(int16_t));
}

SSRS_Stats MicSimulation::statistics() const {
    SSRS_Stats stats{};
    SSRS_StatsGet(buffer.context(), &stats);
    return stats;
}

Ns MicSimulation::hostTime(int64_t periods) const {
    return periods * kPeriod * kMillion / (kMillion + scenario.ppm);
}

// The latency of the app's first sample among the next `samples`, which are played from `playedAt`
// on.
Ns MicSimulation::latencyOf(Ns playedAt, int64_t samples) const {
    int64_t before = 0;
    for (const Span& span : spans) {
        if (before >= samples) {
            break;
        }
        if (span.source == Source::kApp) {
            return playedAt + before * kSecond / uafd::kSampleRateHz - dueOf(scenario, span.frame);
        }
        before += span.count;
    }
    return -1;
}

void MicSimulation::consume(int64_t samples) {
    while (samples > 0) {
        Span& span = spans.front();
        const int64_t count = std::min(samples, span.count);
        playedSamples += span.source == Source::kApp ? count : 0;
        counted.silent += span.source == Source::kSilence ? count : 0;
        counted.stale += span.source == Source::kStale ? count : 0;
        samples -= count;
        span.frame += count;
        span.count -= count;
        if (span.count == 0) {
            spans.pop_front();
        }
    }
}

int64_t MicSimulation::queued() const {
    int64_t samples = 0;
    for (const Span& span : spans) {
        samples += span.source == Source::kApp ? span.count : 0;
    }
    return samples;
}

}  // namespace drift
