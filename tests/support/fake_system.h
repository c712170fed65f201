// SPDX-License-Identifier: Apache-2.0
// A system's /proc, /sys and /run in a folder, for a program that looks there instead of at the
// real ones: the gadget's card 1, configured by the host and with both streams off, and no daemon.
// One thread.
#pragma once

#include <string>

#include "tests/support/temp_dir.h"

namespace uafd {

class FakeSystem {
  public:
    FakeSystem();
    const std::string& path() const { return folder.path(); }

    void setGadget(const std::string& state) const;
    void removeCard() const;
    // A PCM of the card: "pcm0c" is the speaker's, "pcm0p" the microphone's.
    void closePcm(const std::string& name) const;
    // With frames moved since the start, frames waiting, and when it started.
    void runPcm(const std::string& name, int moved, int waiting, const std::string& started) const;
    void setPcmState(const std::string& name, const std::string& state) const;
    // A process that has used 1.5 s of processor time and 3160 KiB of memory; `letter` is its
    // state.
    void addProcess(int pid, const std::string& name, char letter = 'S') const;
    // Its descriptor, which is open for what `flags` says, in octal as in fdinfo.
    void openFile(int pid, int fd, const std::string& file, const std::string& flags) const;
    // systemd, which says this of the daemon's service: put `programs()` first in PATH.
    void addService(const std::string& answer) const;
    std::string programs() const { return path() + "/bin"; }

  private:
    void put(const std::string& name, const std::string& text) const;

    TempDir folder;
};

}  // namespace uafd
