// SPDX-License-Identifier: Apache-2.0
// Sends uevents other than those of the board's own devices. One thread at a time.
#pragma once

#include <string>

#include "board/kit/files.h"

namespace board {

// "HEADER FIELD FIELD", where each blank becomes the end of a text.
std::string ueventText(const std::string& words);

class UeventSender {
  public:
    UeventSender();

    // As a process sends them, to the multicast groups of the mask. Throws when it cannot.
    void send(const std::string& text, unsigned groups);
    // In the kernel's name, which nobody can tell from its own; it gets a SEQNUM field at its end.
    void sendAsKernel(const std::string& text);

  private:
    void sendTo(const std::string& bytes, unsigned groups);

    const Fd descriptor;
};

}  // namespace board
