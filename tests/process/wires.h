// SPDX-License-Identifier: Apache-2.0
// What joins a test and the daemon's process that it starts: inherited descriptors, all of them
// packet sockets, and the daemon's one argument, the folder that it takes for the root of the file
// system.
#pragma once

#include <cstdint>

namespace uafd::process {

// To the daemon, a packet each: kRecord and what one read of the gadget control device gives, or
// kCommand and a text that daemon_process.cpp obeys, on the daemon's main thread, between two
// reads.
constexpr int kControlFd = 100;
constexpr char kRecord = 'r';
constexpr char kCommand = 'c';

// From the daemon, a text each: "ioctl CODE VALUE" and "system COMMAND" when it asked for them,
// "echo WORD" in answer to the command of that name.
constexpr int kNotesFd = 101;

// To the daemon: a UeventSender, then the message that the uevent socket gives.
constexpr int kUeventFd = 102;
struct UeventSender {
    uint32_t pid;     // 0: the kernel
    uint32_t groups;  // 1: to everybody
};

// How much faster than in real time the daemon's sleeps end and its sound cards play.
constexpr int kSpeed = 100;

}  // namespace uafd::process
