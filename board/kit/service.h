// SPDX-License-Identifier: Apache-2.0
// The daemon as an installed package's service, and an app as its man page wants it. Throws when a
// program fails. One thread.
#pragma once

#include <string>

#include <sys/types.h>

namespace board {

// Runs a command and returns what it printed, without the last line end.
std::string outputOf(const std::string& command);

// "key" of the service, as systemctl shows it.
std::string serviceProperty(const std::string& key);
// The daemon's process; 0 when none runs.
pid_t servicePid();

// Restarts the service, its log going to the path; returns its process.
pid_t startService(const std::string& logPath);

// Makes the calling process an app of the daemon's group: what it makes is the group's to use.
void joinServiceGroup();
// And takes its privileges, but for real-time threads as an app has them.
void becomeUnprivileged();

}  // namespace board
