// SPDX-License-Identifier: Apache-2.0
// Processes and the files that they have open, as /proc shows them to this user. Nothing here opens
// one of those files: that alone could start or stop a daemon's wait. `proc` is the path of /proc.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace uafd {

// ---- Texts -------------------------------------------------------------------------------------

// Of a file; empty when it cannot be read.
std::string contentsOf(const std::string& path);
// The text's lines, without their ends.
std::vector<std::string> linesOf(const std::string& text);
std::string firstLineOf(const std::string& path);
// The value in a line "KEY: VALUE" or "KEY=VALUE", without the spaces around it; empty when there
// is none.
std::string valueOf(const std::string& text, const std::string& key);
// The text with a '?' for everything that is not printable ASCII, as it could control a terminal.
std::string printable(std::string text);

// ---- Processes ---------------------------------------------------------------------------------

struct Process {
    pid_t pid = 0;
    std::string name;  // printable ASCII
};

// The first process with this name, if any.
std::optional<Process> findProcess(const std::string& proc, const std::string& name);

struct ProcessState {
    char letter = '?';  // as ps(1) prints it
    int threads = 0;
    double cpuS = 0;        // processor time since its start
    double uptimeS = 0;     // since its start
    int64_t memoryKib = 0;  // resident
};
// Nothing when there is no such process.
std::optional<ProcessState> stateOf(const std::string& proc, pid_t pid);

// A FIFO and who has it open.
struct Fifo {
    explicit Fifo(const std::string& path);

    struct User {
        Process process;
        bool reads = false;
        bool writes = false;
    };
    std::optional<bool> exists;  // nothing: this user may not look
    dev_t device = 0;
    ino_t inode = 0;
    std::vector<User> users;
    std::optional<Process> owner;  // the app that has it by the library, whose lock is on it
};
// Fills in users and owners. Returns whether all processes could be looked at: not without root's
// rights. Owners are found in any case.
bool findUsers(const std::string& proc, const std::vector<Fifo*>& fifos);

}  // namespace uafd
