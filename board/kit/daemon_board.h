// SPDX-License-Identifier: Apache-2.0
// A whole board in action, whatever it has for USB: the host, the board's microphone service, the
// companion app and the daemon between them, and a check that the daemon is intact. One thread at a
// time.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "board/kit/app.h"
#include "board/kit/audio_host.h"
#include "board/kit/daemon.h"
#include "board/kit/process_view.h"

namespace board {

// The board's own microphone capture, which anchors the daemon's start of writing.
class MicService {
  public:
    // Returns when its capture runs.
    MicService();
    ~MicService();
    MicService(const MicService&) = delete;
    MicService& operator=(const MicService&) = delete;

  private:
    pid_t pid;
};

// Threads of the daemon.
constexpr size_t kIdleThreads = 4;       // event loop, app receive, app transmit, cable monitor
constexpr size_t kStreamingThreads = 7;  // and a worker for each direction, and the FIFO's reader

class DaemonBoard {
  public:
    // Removes what earlier runs left in /tmp. `name` names the log files.
    explicit DaemonBoard(const std::string& name, DaemonStarter starter = {});
    virtual ~DaemonBoard() = default;
    DaemonBoard(const DaemonBoard&) = delete;
    DaemonBoard& operator=(const DaemonBoard&) = delete;

    virtual AudioHost& audioHost() = 0;

    // App and daemon up, the first events handled. Without `withMicService` the daemon finds no
    // capture to synchronise with.
    void start(bool withMicService = true, AppOptions options = {});
    // The daemon alone, the first events handled; `prepare` as for Daemon::start.
    void startDaemon(const std::function<void()>& prepare = {});

    // True as soon as the daemon has handled every event record and waits for the next.
    bool settle(Ns limit = 5 * kSecond);
    bool hasThreads(size_t count, Ns limit = 5 * kSecond);
    // Waits for the channel's message {1 or 2, on}, the `times`th since `mark`.
    bool waitForChannel(uint32_t channel, bool on, size_t messageMark, Ns limit = 5 * kSecond);

    // Checks that the daemon is intact; both streams are off before and after. It must have the
    // threads and descriptors that it had after the start, be idle in a quiet second, stream in
    // both directions, and hold no more memory than the first streams need. Returns what is wrong,
    // or an empty text.
    std::string findDamage();

    std::unique_ptr<MicService> micService;
    std::unique_ptr<App> app;
    Daemon daemon;
    // The number of its threads that a scenario has ended or prevented from starting.
    size_t missingThreads = 0;

  protected:
    // Whether the daemon's event loop sleeps in this function of the kernel.
    bool eventLoopSleepsIn(const std::string& function) const;

  private:
    // Whether every event record has been handled.
    virtual bool isSettled() = 0;
    size_t idleThreads() const { return kIdleThreads - missingThreads; }
    bool hasBothGadgetDescriptors() const;
    std::string findIdleDamage();
    std::string findStreamingDamage();
    std::string findBusyThread(Ns watch, Ns allowed);
    std::string findLostMemory() const;
    std::vector<std::string> lastingDescriptors() const;

    std::vector<std::string> descriptorsAtStart;  // after the start
    MemoryView memoryAtStart{};                   // after the start
};

}  // namespace board
