// SPDX-License-Identifier: Apache-2.0
// The surroundings of a daemon that runs as a process of its own: they replace alsa-lib and the
// parts of the kernel that a development machine lacks. Files, FIFOs and the app's sockets are
// real, but below a folder; the control device and the uevent socket are packet sockets (wires.h);
// the sound cards are the fake alsa-lib's. Time passes kSpeed times faster.
//
// The daemon's threads use all of this at any time. They read what a command changes without
// synchronisation, so that ThreadSanitizer sees the daemon's own synchronisation and nothing else.
#pragma once

#include <functional>
#include <string>

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

// Each PCM of the stream has an xrun at its next wait.
void xrun(Stream stream);
void suspend(Stream stream);
// Time passes unnoticed by the daemon, until a PCM's ring is nearly full or has an xrun.
void lag(Stream stream);
// A stalled stream neither delivers nor takes data.
void stall(Stream stream, bool stalled);
// Without the card, every open PCM ends and none can be opened.
void setCardThere(bool there);

}  // namespace uafd::outside
