// SPDX-License-Identifier: Apache-2.0
// The cable monitor on faked sockets, properties and state files; its endless loop runs on this
// thread until the target has no more input. One at a time.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/socket.h>

#include "tests/fuzz/faked.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/fake_files.h"
#include "tests/support/fake_threads.h"
#include "tests/support/ipc_service.h"

namespace uafd::fuzz {

// The line about a failed receive; on the board with the watched controller this is a tick.
fake_log::Line cableReceiveError(bool watched, int error);

extern const char kCableUsbFile[];
extern const char kCablePlugFile[];

class CableRun {
  public:
    CableRun();

    // Starts and runs the monitor. `receive` is called for each message; it calls end() when there
    // are no more.
    void run(const std::function<ssize_t(msghdr&)>& receive);
    [[noreturn]] void end() { loop.leave(); }
    ssize_t fail(int error);
    // The next part of a property's text, as much as fits.
    ssize_t readProperty(int fd, void* data, size_t room);

    // The messages that the daemon queued for the app; clears the log.
    static std::vector<IpcService::Message> takeMessages();

    std::map<std::string, std::string> properties;  // by path
    FakeFiles files;
    std::vector<std::string> commands;
    bool watched = false;  // the socket got the timeout that paces the check

  private:
    Faked faked;
    EndlessLoop loop;
    std::vector<std::string>
        openProperties;  // what is left to read of each; descriptors count from kPropertyFd
    FakeThreads threads;
};

}  // namespace uafd::fuzz
