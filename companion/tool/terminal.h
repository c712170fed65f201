// SPDX-License-Identifier: Apache-2.0
// A view that fills the terminal, and its keys. The terminal is as before when the object is gone,
// while the process is stopped, and after a signal that would end the process, even a crash. One
// object at a time, one thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace uafd {

class Terminal {
  public:
    // Standard output is a terminal, standard input may be one. Blocks the signals that it takes.
    Terminal();
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Waits until one of these, or for the time in milliseconds.
    enum Input {
        kNothing,
        kQuit,    // the key q, or SIGINT, SIGTERM, SIGHUP or SIGQUIT
        kRedraw,  // another key or size, or the process goes on after a stop
    };
    Input wait(int timeoutMs);

    size_t columns() const { return columnCount; }
    // Shows these lines from the top, as many as fit.
    void show(const std::vector<std::string>& lines) const;

  private:
    void enter();
    void findSize();
    Input takeSignal();
    Input takeKey();

    int signals = -1;  // a signalfd
    bool hasKeys;
    size_t columnCount = 80;
    size_t rowCount = 24;
};

}  // namespace uafd
