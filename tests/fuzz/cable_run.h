// SPDX-License-Identifier: Apache-2.0
// The cable monitor on faked sockets, properties and state files, its endless loop run on this
// thread until the target has no more input. One a time.
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

// The line of a failed receive, which on the board with the watched controller is a tick.
fake_log::Line cableReceiveError(bool watched, int error);

extern const char kCableUsbFile[];
extern const char kCablePlugFile[];

class CableRun {
  public:
    CableRun();

    // Starts the monitor and runs it. `receive` is called for each message; it calls end() when
    // there is none.
    void run(const std::function<ssize_t(msghdr&)>& receive);
    [[noreturn]] void end() { loop.leave(); }
    ssize_t fail(int error);
    // The next of a property's text, as much as there is room for.
    ssize_t readProperty(int fd, void* data, size_t room);

    // What the daemon queued for the app; the log is lost.
    static std::vector<IpcService::Message> takeMessages();

    std::map<std::string, std::string> properties;  // by path
    FakeFiles files;
    std::vector<std::string> commands;
    bool watched = false;  // the socket was given the timeout that paces the check

  private:
    Faked faked;
    EndlessLoop loop;
    std::vector<std::string>
        openProperties;  // the rest of each; descriptors count from kPropertyFd
    FakeThreads threads;
};

}  // namespace uafd::fuzz
