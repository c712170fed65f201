// SPDX-License-Identifier: Apache-2.0
// The connection between a test and the daemon's process that it starts: inherited descriptors, all
// of them packet sockets, and the daemon's one argument, the folder that serves as its root.
#pragma once

#include <cstdint>

namespace uafd::process {

// To the daemon. Each packet is kRecord with what one read of the gadget control device returns, or
// kCommand with a text that daemon_process.cpp obeys on the daemon's main thread, between two
// reads.
constexpr int kControlFd = 100;
constexpr char kRecord = 'r';
constexpr char kCommand = 'c';

// From the daemon. Each packet is a text: "ioctl CODE VALUE" or "system COMMAND" for a request of
// the daemon's, or "echo WORD" in answer to the command of that name.
constexpr int kNotesFd = 101;

// To the daemon: a UeventSender, then the message as the uevent socket delivers it.
constexpr int kUeventFd = 102;
struct UeventSender {
    uint32_t pid;     // 0: the kernel
    uint32_t groups;  // 1: to everybody
};

// How much faster than real time the daemon's sleeps end and its sound cards play.
constexpr int kSpeed = 100;

}  // namespace uafd::process
