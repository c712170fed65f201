// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/wire_soak.h"

#include <stdexcept>
#include <string>

namespace board {

WireSoak::WireSoak(const SoakPlan& plan) : Soak(plan) {
    if (plan.calmSeconds > 0) {
        throw std::runtime_error("nothing can be disturbed over the wire");
    }
}

StreamClock WireSoak::clockOf(const Direction& direction) {
    const std::string packets = std::string(WireAudioHost::endpoint(direction)) + ".packets";
    waitFor([&] { return wired.wire.counterOrZero(packets) > 0; });
    const StreamPosition position = wired.host.position(direction);
    return {position.frames, position.at, position.nsPerFrame};
}

// The daemon's first start. If it ever started again, the recording could not be explained.
std::optional<int64_t> WireSoak::newPlayback() {
    const std::optional<int64_t> first =
        playbackKnown ? std::nullopt : wired.host.daemonsFirstFrame();
    playbackKnown = playbackKnown || first;
    return first;
}

int64_t WireSoak::xruns() {
    return wired.daemon.count("overrun...") + wired.daemon.count("underrun...");
}

Ns WireSoak::prepared() {
    return wired.host.preparedFrames() * kSecond / kRate;
}

}  // namespace board
