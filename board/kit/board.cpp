// SPDX-License-Identifier: Apache-2.0
#include "board/kit/board.h"

#include <utility>

namespace board {
namespace {

constexpr char kReadsRecord[] = "uac_read";  // where the driver keeps its reader

}  // namespace

Board::Board(const std::string& name, DaemonStarter starter)
    : DaemonBoard(name, std::move(starter)) {
    host.reset();
}

bool Board::isSettled() {
    return host.counter("records.waiting") == 0 && eventLoopSleepsIn(kReadsRecord);
}

}  // namespace board
