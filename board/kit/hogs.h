// SPDX-License-Identifier: Apache-2.0
// Keeps every processor of the board busy: on each an ordinary process (SCHED_OTHER) spins, and now
// and then makes the kernel work.
#pragma once

#include <vector>

#include <sys/types.h>

#include "board/kit/clock.h"

namespace board {

class Hogs {
  public:
    Hogs();
    // Ends the processes.
    ~Hogs();
    Hogs(const Hogs&) = delete;
    Hogs& operator=(const Hogs&) = delete;

    // The processor time that they have used in total.
    Ns cpu() const;

  private:
    std::vector<pid_t> pids;
};

// Processors that the board has.
int processors();

}  // namespace board
