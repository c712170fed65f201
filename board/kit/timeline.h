// SPDX-License-Identifier: Apache-2.0
// What happened on a board, put in the order of the virtual clock and made readable. One thread.
#pragma once

#include <string>
#include <vector>

#include "board/kit/daemon_board.h"

namespace board {

class Timeline {
  public:
    // Time 0 is now.
    Timeline() : start(now()) {}

    void add(Ns at, const std::string& who, const std::string& what);
    // Everything from time 0 on that the board has noted: what the host did, driver and bus, lines
    // of the daemon's log but its heartbeat, messages to the app.
    void addAllOf(DaemonBoard* board);
    // One line for each entry, "   1.234 s  who     what".
    std::string text() const;

    const Ns start;

  private:
    std::vector<TimelineEntry> entries;
};

// What a message to or from the app means.
std::string meaningOf(Message message);

}  // namespace board
