// SPDX-License-Identifier: Apache-2.0
// The daemon under test, started as a process or by a given starter. Its log goes to a file that is
// handed back from the board. One thread at a time.
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

// Starts the daemon, its log going to the path, and returns the process, which Daemon then does not
// end.
using DaemonStarter = std::function<pid_t(const std::string& logPath)>;

class Daemon {
  public:
    explicit Daemon(const std::string& name, DaemonStarter starter = {});
    // Ends the process if it still runs.
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // `prepare` runs in the new process just before the daemon, its output already in place; not
    // with a starter.
    void start(const std::function<void()>& prepare = {});
    // Ends it by signal.
    void stop();
    // Stop all its threads, and let them continue.
    void freeze();
    void thaw();
    bool isRunning();
    // Waits until it ends by itself; returns its exit status.
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
    // True as soon as there are `times` such lines.
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

// Whether a working daemon may write the line while the world around it misbehaves: those lines of
// docs/log.md without "!!". Lines that report a defect, such as a failed lock or an unknown state,
// are not included.
bool isKnown(const LogLine& line);

}  // namespace board
