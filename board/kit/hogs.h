// SPDX-License-Identifier: Apache-2.0
// Keeps every processor of the board busy: an ordinary process (SCHED_OTHER) on each, which spins,
// and now and then has the kernel work for it.
#pragma once

#include <vector>

#include <sys/types.h>

#include "board/kit/clock.h"

namespace board {

class Hogs {
  public:
    Hogs();
    // Ends them.
    ~Hogs();
    Hogs(const Hogs&) = delete;
    Hogs& operator=(const Hogs&) = delete;

    // Processor time that they have used, together.
    Ns cpu() const;

  private:
    std::vector<pid_t> pids;
};

// Processors that the board has.
int processors();

}  // namespace board
