// SPDX-License-Identifier: Apache-2.0
// A walk over both ends of the wire: what a user does with cable and host, faults of the bus, what
// the board's system does with the gadget, and apps that come and go. One thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "board/kit/direction.h"
#include "board/kit/usb/wire_board.h"
#include "tests/board/walk/action.h"
#include "tests/board/walk/walk.h"

namespace uafd {

class WireWalk : public Walk {
  public:
    explicit WireWalk(uint64_t seed);
    std::string measured() const override;

    // ---- For the actions -----------------------------------------------------------------------

    board::WireBoard wired{"random_walk"};

    // Does and prints what may fail in the present state.
    void attempt(const std::string& what, const std::function<void()>& deed);
    // Likewise; refused while the host has no card.
    void attemptOnHost(const std::string& what, const std::function<void()>& deed);
    // False while the controllers' module is away: the host has no bus then.
    static bool hasController();
    board::Direction direction();
    // Switches a stream of the host. One that is on is switched off before it goes on again.
    void switchStream(const board::Direction& direction, bool on);

  private:
    board::DaemonBoard& board() override { return wired; }
    void act() override;
    void restore() override;
    void switchStreams(bool on) override;
    std::string proveMore() override;

    int64_t deeds = 0;
    int64_t refusals = 0;
    int64_t proofs = 0;
};

std::vector<Action<WireWalk>> wireActions();

}  // namespace uafd
