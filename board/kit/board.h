// SPDX-License-Identifier: Apache-2.0
// The board with the simulated gadget and host. One thread at a time.
#pragma once

#include <string>

#include "board/kit/daemon_board.h"
#include "board/kit/host.h"
#include "board/kit/simulated_audio_host.h"

namespace board {

class Board : public DaemonBoard {
  public:
    // Resets the host.
    explicit Board(const std::string& name, DaemonStarter starter = {});

    AudioHost& audioHost() override { return simulatedHost; }

    Host host;

  private:
    bool isSettled() override;

    SimulatedAudioHost simulatedHost{&host};
};

}  // namespace board
