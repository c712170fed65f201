// SPDX-License-Identifier: Apache-2.0
#include "tools/drift/mic_simulation.h"

#include <algorithm>
#include <new>
#include <utility>

#include "channel/uaf_ch.h"
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

bool holds(const Pause& pause, Ns at) {
    return at >= pause.at && at < pause.at + pause.length;
}

}  // namespace

Ns dueOf(const Scenario& scenario, int64_t frame) {
    return scenario.phase + frame * kSecond / uafd::kSampleRateHz;
}

AppWrites::AppWrites(const Scenario& scenario) : scenario(scenario), engine(scenario.seed) {}

AppWrite AppWrites::next() {
    for (;;) {
        const int64_t frame = block++ * scenario.blockFrames;
        const auto lateness = static_cast<uint64_t>(scenario.jitter) + 1;
        const Ns at = dueOf(scenario, frame) + static_cast<Ns>(engine() % lateness);
        if (!isDropped(at)) {
            lastAt = std::max(lastAt, delayed(at));
            return {lastAt, frame};
        }
    }
}

bool AppWrites::isDropped(Ns at) const {
    return std::any_of(scenario.pauses.begin(), scenario.pauses.end(),
                       [at](const Pause& pause) { return pause.dropped && holds(pause, at); });
}

Ns AppWrites::delayed(Ns at) const {
    for (const Pause& pause : scenario.pauses) {
        at = !pause.dropped && holds(pause, at) ? pause.at + pause.length : at;
    }
    return at;
}

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

Measured measure(const Scenario& scenario, Ns time, const Look& look) {
    MicSimulation simulation(scenario);
    std::vector<Ns> depths;
    std::vector<Ns> latencies;
    Counts settled;
    Reading reading{};
    while (reading.at < time) {
        reading = simulation.read();
        if (look) {
            look(reading, simulation.counts());
        }
        if (reading.at < kSettling) {
            settled = simulation.counts();
            continue;
        }
        depths.push_back(reading.depth * kSecond / uafd::kSampleRateHz);
        if (reading.latency >= 0) {
            latencies.push_back(reading.latency);
        }
    }
    const Counts& counts = simulation.counts();
    const double seconds = static_cast<double>(time - kSettling) / kSecond;
    Measured measured;
    measured.depth = board::spreadOf(std::move(depths));
    measured.latency = board::spreadOf(std::move(latencies));
    measured.stretchesPerSecond =
        static_cast<double>(counts.stretches - settled.stretches) / seconds;
    measured.squeezesPerSecond = static_cast<double>(counts.squeezes - settled.squeezes) / seconds;
    measured.counts = counts;
    return measured;
}

}  // namespace drift
