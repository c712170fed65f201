// SPDX-License-Identifier: Apache-2.0
// A companion app in a process of its own, for tests in which it dies or freezes. It speaks noise
// and listens; what it has got through shows in counters and messages that outlive it.
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
    // Kills it when it still lives.
    ~AppProcess();
    AppProcess(const AppProcess&) = delete;
    AppProcess& operator=(const AppProcess&) = delete;

    void kill();
    void freeze();
    void thaw();
    // As the app's own, within some 5 ms.
    void pauseSpeaking(bool pause);
    void pauseListening(bool pause);

    // Since its start: frames heard that were not silent, messages received (no more than 65536 are
    // kept).
    int64_t heardSound() const;
    // Of a host that plays the ramp: how often what was heard did not go on with its next sample.
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
