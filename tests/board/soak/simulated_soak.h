// SPDX-License-Identifier: Apache-2.0
// A soak with the simulated host, which can disturb it. One thread.
#pragma once

#include <optional>

#include "board/kit/board.h"
#include "tests/board/soak/soak.h"

namespace board {

class SimulatedSoak : public Soak {
  public:
    explicit SimulatedSoak(const SoakPlan& plan) : Soak(plan) {}

  private:
    DaemonBoard& board() override { return simulated; }
    StreamClock clockOf(const Direction& direction) override;
    int64_t beginOf(const Direction& direction) override;
    std::optional<int64_t> newPlayback() override;
    int64_t playbackOpens() override { return simulated.host.counter("playback.opens"); }
    int64_t xruns() override;
    Ns prepared() override { return 0; }
    void disturb(const Disturbance& disturbance) override {
        board::disturb(&simulated, disturbance);
    }

    Board simulated{"soak"};
    int64_t playbackStarts = 0;
};

}  // namespace board
