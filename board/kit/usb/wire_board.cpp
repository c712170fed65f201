// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/wire_board.h"

#include <cerrno>
#include <utility>

#include "board/kit/files.h"
#include "board/kit/usb/kernel_module.h"
#include "board/kit/usb/usb_host.h"

namespace board {
namespace {

constexpr char kReadsRecord[] = "control_read";  // where the driver keeps its reader

// A process that has just been forked still has our files until it runs for the first time.
void unloadOrFail(const char* module) {
    int error = 0;
    waitFor([&] {
        error = unloadModule(module);
        return error != EWOULDBLOCK;
    });
    if (error != 0) {
        errno = error;
        fail(std::string("unloading ") + module);
    }
}

// Restored before the gadget is made; the board's own card comes first, so that it is card 0.
Wire readyWire() {
    loadModule("usb_board");
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

void WireBoard::unloadController() {
    { const Wire closing(std::move(wire)); }
    unloadOrFail("usb_wire");
}

void WireBoard::loadController() {
    loadModule("usb_wire");
    wire = Wire();
}

void WireBoard::reloadDriver() {
    gadget.takeApart();
    unloadOrFail("usb_f_vexa");
    gadget.make();  // the kernel loads it
}

// The only reader sleeps: no record waits for it.
bool WireBoard::isSettled() {
    return eventLoopSleepsIn(kReadsRecord);
}

}  // namespace board
