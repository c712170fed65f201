// SPDX-License-Identifier: Apache-2.0
// What the package installs: the daemon as a service with an app as the man page describes it, and
// the device uafd for the programs that use ALSA. Throws when a program fails. One thread.
#pragma once

#include <string>

#include <sys/types.h>

namespace board {

// Runs a command and returns what it printed, without the last line end.
std::string outputOf(const std::string& command);

// "key" of a service, by default the daemon's, as systemctl shows it.
std::string serviceProperty(const std::string& key, const std::string& unit = "uafd.service");
// The daemon's process; 0 when none runs.
pid_t servicePid();

// Restarts the service, its log going to the path; returns its process.
pid_t startService(const std::string& logPath);

// Puts the calling process into the daemon's group, which can use the files that it makes.
void joinServiceGroup();
// Drops its privileges too, except that to real-time threads, which an app has.
void becomeUnprivileged();

// Links the device's configuration into /etc, as the package does. Only where it is needed, as
// reading it changes the costs that other tests measure.
void installAlsaDevice();

}  // namespace board
