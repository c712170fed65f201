// SPDX-License-Identifier: Apache-2.0
// What passes between the host's drivers and its controller, as the kernel's usbmon module sees it.
// What fails throws. One thread.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "board/kit/files.h"

namespace board {

struct UsbPacket {
    int status;  // 0, or a negative error
    std::string data;
};

// A URB that has ended, except those to the root hub.
struct UsbTransfer {
    uint8_t endpoint;  // with 0x80: IN
    bool isControl;
    std::array<uint8_t, 8> setup;  // of a control transfer
    int status;                    // 0, or a negative error
    // One, but as many as the URB has of an isochronous one.
    std::vector<UsbPacket> packets;
};

class UsbMonitor {
  public:
    // Sees what begins from now on. Loads the module.
    UsbMonitor();

    // The URBs that have ended since the last call, in the order in which they ended. At most 300
    // kB are kept in the meantime.
    std::vector<UsbTransfer> take();

  private:
    struct Event;
    bool read(Event* event) const;
    static UsbTransfer ended(const Event& event, const std::string& sent);

    Fd file;
    std::map<uint64_t, std::string> sent;  // what URBs under way take to the device, by their id
};

}  // namespace board
