// SPDX-License-Identifier: Apache-2.0
// The board with real USB (board/start --usb): the daemon on our gadget driver, with the kernel's
// own host on the other end of the wire. One thread at a time.
#pragma once

#include <map>
#include <string>

#include "board/kit/daemon_board.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/wire.h"
#include "board/kit/usb/wire_audio_host.h"

namespace board {

class WireBoard : public DaemonBoard {
  public:
    // The board's own card and its cable detector are there, the wire is as after loading, a gadget
    // with our driver's function is bound and the host has its card. `attributes` are the
    // function's.
    explicit WireBoard(const std::string& name,
                       const std::map<std::string, std::string>& attributes = {},
                       DaemonStarter starter = {});
    // Ends the daemon before its gadget goes.
    ~WireBoard() override;

    AudioHost& audioHost() override { return host; }

    // The controllers' module goes, whatever runs on the wire, which nobody may use before it is
    // there again. The gadget waits for a controller, and binds to it as soon as there is one.
    void unloadController();
    void loadController();
    // The driver's module goes and comes. No daemon may run; the gadget is not bound afterwards.
    void reloadDriver();

    Wire wire;
    KernelGadget gadget;
    WireAudioHost host{&wire, &gadget};

  private:
    bool isSettled() override;
};

}  // namespace board
