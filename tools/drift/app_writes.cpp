// SPDX-License-Identifier: Apache-2.0
#include "tools/drift/app_writes.h"

#include <algorithm>

#include "channel/uaf_ch.h"

namespace drift {
namespace {

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

}  // namespace drift
