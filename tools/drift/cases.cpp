// SPDX-License-Identifier: Apache-2.0
// The common cases of an app.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "tools/drift/mic_simulation.h"

namespace drift {
namespace {

constexpr Ns kTime = 60 * kSecond;
// The phase between the app's writes and the host's periods is random: each case is simulated with
// this many phases, evenly spread over the 10 ms in which they repeat.
constexpr int kPhases = 10;
constexpr Ns kPhaseStep = kMs;
constexpr Ns kFirstPhase = kMs / 4;

constexpr Ns kPauseAt = 10 * kSecond;
constexpr double kSamplesInMs = 48;

struct Case {
    const char* name;
    int ppm;
    int blockFrames;
    Ns jitter;
    Ns pause;
    bool dropped;
};

constexpr Case kCases[] = {
    {"on time, equal clocks", 0, 480, 0, 0, false},
    {"on time, host fast by 50 ppm", 50, 480, 0, 0, false},
    {"on time, host slow by 50 ppm", -50, 480, 0, 0, false},
    {"on time, host fast by 1000 ppm", 1000, 480, 0, 0, false},
    {"on time, host slow by 1000 ppm", -1000, 480, 0, 0, false},
    {"up to 1 ms late", 50, 480, 1 * kMs, 0, false},
    {"up to 2 ms late", 50, 480, 2 * kMs, 0, false},
    {"up to 3 ms late", 50, 480, 3 * kMs, 0, false},
    {"up to 4 ms late", 50, 480, 4 * kMs, 0, false},
    {"up to 5 ms late", 50, 480, 5 * kMs, 0, false},
    {"up to 6 ms late", 50, 480, 6 * kMs, 0, false},
    {"up to 8 ms late", 50, 480, 8 * kMs, 0, false},
    {"up to 12 ms late", 50, 480, 12 * kMs, 0, false},
    {"up to 15 ms late", 50, 480, 15 * kMs, 0, false},
    {"up to 20 ms late", 50, 480, 20 * kMs, 0, false},
    {"up to 3 ms late, host fast by 1000 ppm", 1000, 480, 3 * kMs, 0, false},
    {"up to 4 ms late, host fast by 1000 ppm", 1000, 480, 4 * kMs, 0, false},
    {"up to 5 ms late, host fast by 1000 ppm", 1000, 480, 5 * kMs, 0, false},
    {"a pause of 5 ms, then all of it", 50, 480, 0, 5 * kMs, false},
    {"a pause of 10 ms, then all of it", 50, 480, 0, 10 * kMs, false},
    {"a pause of 20 ms, then all of it", 50, 480, 0, 20 * kMs, false},
    {"a pause of 50 ms, then all of it", 50, 480, 0, 50 * kMs, false},
    {"a pause of 10 ms, left out", 50, 480, 0, 10 * kMs, true},
    {"a pause of 20 ms, left out", 50, 480, 0, 20 * kMs, true},
    {"a pause of 50 ms, left out", 50, 480, 0, 50 * kMs, true},
    {"writes of 5 ms (960 bytes)", 50, 240, 0, 0, false},
    {"writes of 20 ms (3840 bytes)", 50, 960, 0, 0, false},
    {"writes of 1024 frames (4096 bytes)", 50, 1024, 0, 0, false},
    {"writes of 40 ms (7680 bytes)", 50, 1920, 0, 0, false},
};

// The worst of all phases; for the corrections, the mean.
struct Worst {
    Ns depthLow = INT64_MAX;
    Ns depthHigh = 0;
    std::vector<Ns> medians;
    Ns latency = 0;
    double corrections = 0;
    int64_t starved = 0;
    int64_t overruns = 0;
    int64_t silent = 0;
    int64_t stale = 0;
    int enlarged = 0;

    void add(const Measured& measured) {
        const Counts& counts = measured.counts;
        depthLow = std::min(depthLow, measured.depth.smallest);
        depthHigh = std::max(depthHigh, measured.depth.largest);
        medians.push_back(measured.latency.median);
        latency = std::max(latency, measured.latency.largest);
        corrections += (measured.stretchesPerSecond + measured.squeezesPerSecond) / kPhases;
        starved = std::max(starved, counts.underruns + counts.emptyReads);
        overruns = std::max(overruns, counts.overruns);
        silent = std::max(silent, counts.silent);
        stale = std::max(stale, counts.stale);
        enlarged += counts.enlargedAt >= 0 ? 1 : 0;
    }
};

std::string rowOf(const Case& what) {
    Worst worst;
    for (int i = 0; i < kPhases; ++i) {
        Scenario scenario;
        scenario.ppm = what.ppm;
        scenario.blockFrames = what.blockFrames;
        scenario.jitter = what.jitter;
        scenario.phase = kFirstPhase + i * kPhaseStep;
        scenario.seed = static_cast<uint64_t>(i);
        if (what.pause > 0) {
            scenario.pauses = {{kPauseAt, what.pause, what.dropped}};
        }
        worst.add(measure(scenario, kTime));
    }
    const board::Spread median = board::spreadOf(worst.medians);
    char row[240];
    snprintf(
        row, sizeof row,
        "| %s | %.1f to %.1f | %.1f to %.1f | %.1f | %.1f | %lld | %.1f | %lld | %.1f | %d |\n",
        what.name, inMs(worst.depthLow), inMs(worst.depthHigh), inMs(median.smallest),
        inMs(median.largest), inMs(worst.latency), worst.corrections,
        static_cast<long long>(worst.starved), static_cast<double>(worst.silent) / kSamplesInMs,
        static_cast<long long>(worst.overruns), static_cast<double>(worst.stale) / kSamplesInMs,
        worst.enlarged);
    return row;
}

}  // namespace

std::string tableOfCases() {
    std::string table =
        "| the app writes | depth, ms | latency, ms: median | largest | corrections/s | starved "
        "frames | silence, ms | dropped blocks | stale, ms | enlarged |\n"
        "|---|---|---|---|---|---|---|---|---|---|\n";
    for (const Case& what : kCases) {
        table += rowOf(what);
    }
    return table;
}

}  // namespace drift
