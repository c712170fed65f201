// SPDX-License-Identifier: Apache-2.0
// Which files the app and the daemon share, and whether each may open the other's: by owner, group
// and mode, as far as the daemon's user is known. One thread.
#pragma once

#include <optional>
#include <string>
#include <uafd_companion.h>

#include <sys/stat.h>

namespace uafd {

// The files that app and daemon share. Names are seen from the app.
constexpr char kFifoRx[] = "usbAudioFifoRx";
constexpr char kFifoTx[] = "usbAudioFifoTx";
constexpr char kSocketRx[] = "usbAudioUdsIpcRx";  // the app's
constexpr char kSocketTx[] = "usbAudioUdsIpcTx";  // the daemon's

// The path of one of them, in --directory.
std::string pathOf(const std::string& name);

// The options for opening these parts, in --directory. New files get the group of --group,
// otherwise that of the daemon's files if this process may set it. The texts are valid until the
// next call.
uafd_options optionsFor(unsigned parts);

// Checks the existing files and those that opening all parts would make. Names the first one that
// app or daemon could not open, and what to do about it. Empty when there is none, or when no
// daemon has run, so that its user is unknown.
std::string findObstacle();

// Removes what opening has made.
class FoundFolder {
  public:
    // Create it before opening.
    FoundFolder();
    // Call it while everything is still open, so that no daemon waits at a removed file. Restores
    // the socket; removes new FIFOs unless a daemon has used them.
    void restore(bool hadDaemon) const;

  private:
    std::optional<struct stat> daemonSocket;
    bool hasFifo[2];
};

}  // namespace uafd
