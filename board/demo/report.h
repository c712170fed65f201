// SPDX-License-Identifier: Apache-2.0
// What the main job shows: what happened on its board, in the order of the virtual clock, and the
// closing table, a row for each measure, a column for each direction. One thread.
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

struct Row {
    const char* key;    // in the summary
    const char* title;  // in the printed table
    double toApp;
    double toHost;
    int decimals;
};

Row countRow(const char* key, const char* title, int64_t toApp, int64_t toHost);
// Shown in milliseconds.
Row timeRow(const char* key, const char* title, Ns toApp, Ns toHost);

std::string tableText(const std::vector<Row>& rows);
// {"KEY": {"host_to_app": N, "app_to_host": N}, ...}
std::string tableJson(const std::vector<Row>& rows);

}  // namespace board
