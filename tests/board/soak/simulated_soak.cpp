// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/simulated_soak.h"

#include <map>
#include <string>

namespace board {

StreamClock SimulatedSoak::clockOf(const Direction& direction) {
    const std::map<std::string, int64_t> values = simulated.host.counters();
    const std::string stream = direction.name;
    return {values.at(stream + ".frames"), values.at(stream + ".last_ns"),
            simulated.audioHost().position(direction).nsPerFrame};
}

int64_t SimulatedSoak::beginOf(const Direction& direction) {
    return simulated.host.counter(std::string(direction.name) + ".on_frames");
}

std::optional<int64_t> SimulatedSoak::newPlayback() {
    const std::map<std::string, int64_t> values = simulated.host.counters();
    if (values.at("playback.starts") == playbackStarts) {
        return std::nullopt;
    }
    playbackStarts = values.at("playback.starts");
    return values.at("mic.start_frames");
}

int64_t SimulatedSoak::xruns() {
    return simulated.host.counter("playback.xruns") + simulated.host.counter("capture.xruns");
}

}  // namespace board
