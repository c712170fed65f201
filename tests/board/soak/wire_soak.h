// SPDX-License-Identifier: Apache-2.0
// A soak over the wire, with the kernel's own host. Nothing is disturbed. One thread.
#pragma once

#include <optional>

#include "board/kit/usb/wire_board.h"
#include "tests/board/soak/soak.h"

namespace board {

class WireSoak : public Soak {
  public:
    // Throws when the plan has disturbances.
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

}  // namespace board
