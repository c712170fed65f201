// SPDX-License-Identifier: Apache-2.0
// A soak over the wire.
#include <optional>
#include <stdexcept>
#include <string>

#include "board/kit/usb/wire_board.h"
#include "tests/board/soak/soak.h"

namespace board {
namespace {

class WireSoak : public Soak {
  public:
    explicit WireSoak(const SoakPlan& plan);

  private:
    DaemonBoard& board() override { return wired; }
    StreamClock clockOf(const Direction& direction) override;
    // The host's streams are opened once, and counted from there.
    int64_t beginOf(const Direction& /*direction*/) override { return 0; }
    std::optional<int64_t> newPlayback() override;
    int64_t playbackOpens() override { return 0; }
    // As the daemon's log has them.
    int64_t xruns() override;
    Ns prepared() override;
    void disturb(const Disturbance& /*disturbance*/) override {}

    WireBoard wired{"soak"};
    bool playbackKnown = false;
};

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

}  // namespace

std::unique_ptr<Soak> wireSoak(const SoakPlan& plan) {
    return std::make_unique<WireSoak>(plan);
}

}  // namespace board
