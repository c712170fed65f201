// SPDX-License-Identifier: Apache-2.0
// The daemon under test, started as a process with its log going to a file that comes back from the
// board, or by who else is to start it. One thread at a time.
#pragma once

#include <functional>
#include <ios>
#include <string>
#include <vector>

#include <sys/types.h>

#include "board/kit/clock.h"

namespace board {

// One line of the log.
struct LogLine {
    Ns at;  // by the board's clock, to the millisecond
    int tid;
    char level;  // D or E
    std::string tag;
    std::string text;
    // "D TAG: text"
    std::string brief() const;
};

// Starts the daemon with its log going to the path and returns its process, whose life is not
// Daemon's to end then.
using DaemonStarter = std::function<pid_t(const std::string& logPath)>;

class Daemon {
  public:
    explicit Daemon(const std::string& name, DaemonStarter starter = {});
    // Ends it when it still runs.
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // `prepare` runs in the new process just before the daemon, its output already in place; not
    // with a starter.
    void start(const std::function<void()>& prepare = {});
    // Ends it by signal.
    void stop();
    // Stops it where it is, whole, and lets it go on.
    void freeze();
    void thaw();
    bool isRunning();
    // When it has ended by itself: its exit status.
    int waitForExit(Ns limit = 5 * kSecond);
    pid_t pid() const { return processId; }

    const std::string logPath;     // /out/NAME.log
    const std::string stdoutPath;  // /out/NAME.stdout

    // The log so far, of all starts, and its length, to be used as a mark.
    const std::vector<LogLine>& log();
    size_t mark() { return log().size(); }
    // How many lines from `mark` on have this text; '#' in it stands for any number, '*' for
    // any text.
    int count(const std::string& text, size_t mark = 0);
    // True as soon as there are this many.
    bool waitForLog(const std::string& text, size_t mark = 0, int times = 1,
                    Ns limit = 5 * kSecond);

  private:
    const DaemonStarter starter;
    pid_t processId = -1;
    std::streamoff logRead = 0;
    std::vector<LogLine> lines;
};

// Whether a log text is what is wanted; in `wanted` '#' stands for any number, '*' for anything.
bool matches(const std::string& text, const std::string& wanted);

}  // namespace board
