// SPDX-License-Identifier: Apache-2.0
// The surroundings of a daemon that runs as a process of its own: they replace alsa-lib and the
// parts of the kernel that a development machine lacks. Files, FIFOs and the app's sockets are
// real, but below a folder; the control device and the uevent socket are packet sockets; the sound
// cards are the fake alsa-lib's. Time passes kSpeed times faster.
//
// The daemon's threads use all of this at any time. They read what a command changes without
// synchronisation, so that ThreadSanitizer sees the daemon's own synchronisation and nothing else.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace uafd::process {

// The connection with the test that starts the process: inherited descriptors, all of them packet
// sockets, and the one argument, the folder that serves as the daemon's root.
//
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

namespace uafd::outside {

// Call this before the daemon's main. `obey` gets the commands that arrive among the control
// device's records.
void install(const std::string& root, std::function<void(const std::string&)> obey);

// Sends a text to the test.
void note(const std::string& text);

// The next `times` calls of a libc function fail with `error`: those that the daemon makes of open
// (FIFOs), read (control device), ioctl, fcntl, recvmsg, sendto, strdup, malloc, pthread_create.
// False for any other name.
bool refuse(const std::string& call, int error, int times);

enum Stream { kCapture, kPlayback };

// At its next wait each PCM of the stream has an "xrun", or goes into "suspend", or begins to
// "lag": time passes unnoticed by the daemon, until a ring is nearly full or has an xrun. False for
// any other word.
bool upset(const std::string& how, Stream stream);
// A stalled stream neither delivers nor takes data.
void stall(Stream stream, bool stalled);
// Without the card, every open PCM ends and none can be opened.
void setCardThere(bool there);

}  // namespace uafd::outside
