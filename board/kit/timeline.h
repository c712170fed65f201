// SPDX-License-Identifier: Apache-2.0
// What happened on a board, put in the order of the virtual clock and made readable. One thread.
#pragma once

#include <string>
#include <vector>

#include "board/kit/board.h"

namespace board {

class Timeline {
  public:
    // Time 0 is now.
    Timeline() : start(now()) {}

    void add(Ns at, const std::string& who, const std::string& what);
    // Everything from time 0 on that the board has noted: commands of the host, requests to the
    // driver, lines of the daemon's log but its heartbeat, messages to the app.
    void addAllOf(Board* board);
    // One line for each entry, "   1.234 s  who     what".
    std::string text() const;

    const Ns start;

  private:
    struct Entry {
        Ns at;
        std::string who;
        std::string what;
    };

    std::vector<Entry> entries;
};

// What a message to or from the app means.
std::string meaningOf(Message message);

}  // namespace board
