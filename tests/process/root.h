// SPDX-License-Identifier: Apache-2.0
// What the daemon's process finds below its root: the app's FIFOs and the files of the kernel and
// of the platform. One thread; the files are removed with the object.
#pragma once

#include <string>

#include "tests/support/temp_dir.h"

namespace uafd::process {

constexpr char kFifoRx[] = "/tmp/usbAudioFifoRx";
constexpr char kFifoTx[] = "/tmp/usbAudioFifoTx";
constexpr char kSocketRx[] = "/tmp/usbAudioUdsIpcRx";  // the app's
constexpr char kSocketTx[] = "/tmp/usbAudioUdsIpcTx";  // the daemon's

class Root {
  public:
    // Sets up a configured gadget, a plugged cable, a controller that is watched, and the board's
    // own capture running; no FIFO.
    Root();

    const std::string& path() const { return folder.path(); }
    std::string path(const std::string& name) const { return folder.path() + name; }
    std::string contents(const std::string& name) const;

    void makeFifos() const;
    void removeFifo(const std::string& name) const;
    // Writes the gadget's state file and the cable detector's.
    void setUsbState(const std::string& word) const;
    void setCable(bool plugged) const;
    // Whether the board's own card captures.
    void setOwnCapture(bool running) const;

  private:
    void put(const std::string& name, const std::string& text) const;

    TempDir folder;
};

}  // namespace uafd::process
