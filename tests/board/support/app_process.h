// A companion app in a process of its own, for tests in which it dies or freezes. It speaks noise
// and listens; what it has got through shows in counters that outlive it.
#pragma once

#include <cstdint>

#include <sys/types.h>

namespace board {

class AppProcess {
  public:
    AppProcess();
    // Kills it when it still lives.
    ~AppProcess();
    AppProcess(const AppProcess&) = delete;
    AppProcess& operator=(const AppProcess&) = delete;

    void kill();
    void freeze();
    void thaw();

    // Since its start: frames heard that were not silent, messages received.
    int64_t heardSound() const;
    int64_t messages() const;

  private:
    struct Progress;
    [[noreturn]] void live();

    Progress* const progress_;  // shared with the process
    pid_t pid_ = -1;
};

}  // namespace board
