// SPDX-License-Identifier: Apache-2.0
#include "tools/drift/measure.h"

#include <utility>
#include <vector>

#include "channel/uaf_ch.h"

namespace drift {

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
