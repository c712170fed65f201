// SPDX-License-Identifier: Apache-2.0
// A walk with the simulated host, which covers faults of driver and cable as well. One thread.
#pragma once

#include <string>
#include <vector>

#include "board/kit/board.h"
#include "board/kit/record_watch.h"
#include "tests/board/walk/action.h"
#include "tests/board/walk/walk.h"

namespace uafd {

// What a walk covers.
enum class Scope {
    kAll,  // everything
    kApp,  // all that an app may do; the host streams, binds and sets volumes as any host does
};

class SimulatedWalk : public Walk {
  public:
    SimulatedWalk(uint64_t seed, Scope scope);
    std::string measured() const override;

    // ---- For the actions -----------------------------------------------------------------------

    // Sends a command as the host; the board may refuse it in its present state.
    void host(const std::string& command);
    std::string direction();  // "speaker" or "mic"
    std::string pcm();        // "capture" or "playback"

  private:
    board::DaemonBoard& board() override { return simulated; }
    void act() override;
    std::string findDelay() override;
    void restore() override;
    void switchStreams(bool on) override;

    board::Board simulated{"random_walk"};
    const Scope scope;
    const std::vector<Action<SimulatedWalk>> actions;
    board::RecordWatch recordWatch{&simulated.host};
};

// The actions of a walk over `scope`.
std::vector<Action<SimulatedWalk>> simulatedActions(Scope scope);

}  // namespace uafd
