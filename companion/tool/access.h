// SPDX-License-Identifier: Apache-2.0
// Which files the app and the daemon share, and whether each may open the other's: by owner, group
// and mode, as far as the daemon's user is known. One thread.
#pragma once

#include <optional>
#include <string>
#include <uafd_companion.h>

#include <sys/stat.h>

namespace uafd {

// How these parts are to be opened: in --directory; what is made gets the group of --group, or else
// the one of the daemon's files, where this process may give it. Its texts last to the next call.
uafd_options optionsFor(unsigned parts);

// The first file, of those that are there and those that opening all parts would make, that one of
// the two could not open, and what to do about it. Empty when there is none; also as long as no
// daemon has run whose user could be known.
std::string findObstacle();

// Takes away again what opening has left.
class FoundFolder {
  public:
    // Before opening.
    FoundFolder();
    // While everything is still open, so that no daemon waits for what goes. The socket becomes as
    // it was, of the FIFOs that were made those stay that a daemon has used.
    void restore(bool hadDaemon) const;

  private:
    std::optional<struct stat> daemonSocket;
    bool hasFifo[2];
};

}  // namespace uafd
