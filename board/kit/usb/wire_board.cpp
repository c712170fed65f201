// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/wire_board.h"

#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "board/kit/usb/usb_host.h"

namespace board {
namespace {

constexpr char kReadsRecord[] = "control_read";  // where the driver keeps its reader

// Restored before the gadget is made; the board's own card comes first, so that it is card 0.
Wire readyWire() {
    if (system("modprobe usb_board") != 0) {
        throw std::runtime_error("the board's own card did not load");
    }
    Wire wire;
    wire.restore();
    return wire;
}

}  // namespace

WireBoard::WireBoard(const std::string& name, const std::map<std::string, std::string>& attributes,
                     DaemonStarter starter)
    : DaemonBoard(name, std::move(starter)), wire(readyWire()), gadget("vexa", attributes) {
    gadget.bind();
    host.plug();
}

WireBoard::~WireBoard() {
    daemon.stop();
    app.reset();
    micService.reset();
}

// The only reader sleeps: no record waits for it.
bool WireBoard::isSettled() {
    return eventLoopSleepsIn(kReadsRecord);
}

}  // namespace board
