// SPDX-License-Identifier: Apache-2.0
// The USB host and the hardware around the daemon, as board tests steer and watch them: the command
// device, counters, event log and sound devices of the usb_board module (board/module/README.md).
// Any thread; each object belongs to one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace usb_host {

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerSecond = 1000000000;
constexpr unsigned kUsbFrameSamples = 48;  // audio frames per millisecond of the host

int64_t nowNs();  // CLOCK_MONOTONIC, the clock of every stamp
void sleepNs(int64_t ns);

// Polls once a millisecond of virtual time; false when it did not come true within limitNs.
bool waitFor(const std::function<bool()>& condition, int64_t limitNs = 10 * kNsPerSecond);

// Runs one command of /dev/usb_host; 0 or the errno.
int command(const std::string& text);

// The value of a key in /proc/usb_host; -1 when there is none.
int64_t counter(const std::string& key);

// Back to the state after loading: bound, plugged, configured, all off, queues empty, no faults.
void reset();

// The text of a file, "no PATH" when it cannot be read.
std::string contents(const std::string& path);

// What the module notes from the construction on.
class EventLog {
  public:
    EventLog();
    ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    struct Line {
        int64_t ns;
        std::string text;
    };
    // Everything since the last call.
    std::vector<Line> lines();
    // The same, without the times and without the host's own commands.
    std::vector<std::string> texts();

  private:
    const int fd_;
};

// Queues frames that the host plays; returns how many fitted.
size_t play(const std::vector<int16_t>& frames);

// Takes everything that the host has recorded so far.
std::vector<int16_t> recorded();

}  // namespace usb_host
