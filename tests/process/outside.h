// SPDX-License-Identifier: Apache-2.0
// The outside of a daemon that runs as a process of its own, in place of alsa-lib and of the parts
// of the kernel that a development machine lacks. Files, FIFOs and the app's sockets are real, but
// below a folder; the control device and the uevent socket are packet sockets (wires.h); sound
// cards are the fake alsa-lib's. Time passes kSpeed times faster.
//
// The daemon's threads meet all of this at any time. What a command changes is read without order,
// so that ThreadSanitizer sees the daemon's own synchronisation and nothing else.
#pragma once

#include <functional>
#include <string>

namespace uafd::outside {

// Before the daemon's main. Commands that come with the control device's records go to `obey`.
void install(const std::string& root, std::function<void(const std::string&)> obey);

// A text to the test.
void note(const std::string& text);

// The next `times` calls of a libc function fail with `error`: those of the daemon's open (FIFOs),
// read (control device), ioctl, fcntl, recvmsg, sendto, strdup, malloc, pthread_create. False for
// any other name.
bool refuse(const std::string& call, int error, int times);

enum Stream { kCapture, kPlayback };

// At the next wait of each such PCM.
void xrun(Stream stream);
void suspend(Stream stream);
// Time passes behind its back, up to a fill level or an xrun.
void lag(Stream stream);
// A stalled stream gives and takes nothing.
void stall(Stream stream, bool stalled);
// Without it, what is open ends, and nothing opens.
void setCardThere(bool there);

}  // namespace uafd::outside
