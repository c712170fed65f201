// SPDX-License-Identifier: Apache-2.0
// A companion app in a separate process, for tests in which it dies or freezes. It speaks noise and
// listens; counters and messages that outlive it show what it received. It has none of its parent's
// files.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include <sys/types.h>

#include "board/kit/app.h"

namespace board {

class AppProcess {
  public:
    // `prepare` runs in the new process before the app.
    explicit AppProcess(const AppOptions& options = {}, const std::function<void()>& prepare = {});
    // Kills the process if it still runs.
    ~AppProcess();
    AppProcess(const AppProcess&) = delete;
    AppProcess& operator=(const AppProcess&) = delete;

    void kill();
    void freeze();
    void thaw();
    // As App::pauseSpeaking, within about 5 ms.
    void pauseSpeaking(bool pause);
    void pauseListening(bool pause);

    // Since its start: frames heard that were not silent, messages received (no more than 65536 are
    // kept).
    int64_t heardSound() const;
    // When the host plays the ramp: how often a sample was heard that is not the next one.
    int64_t heardJumps() const;
    int64_t messages() const;
    std::vector<Message> messageValues(size_t from) const;

  private:
    struct Progress;
    [[noreturn]] void live(AppOptions options, const std::function<void()>& prepare) noexcept;

    Progress* const progress;  // shared with the process
    pid_t pid = -1;
    bool frozen = false;
};

}  // namespace board
