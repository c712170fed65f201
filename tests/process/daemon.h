// SPDX-License-Identifier: Apache-2.0
// The daemon's process as a test holds it: starts it, plays the gadget driver and the kernel to it,
// hears what it asks for, and knows what the sanitizers said. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/process/root.h"
#include "tests/process/wires.h"

namespace uafd::process {

class Daemon {
  public:
    // Its log is ROOT/log, the sanitizers' reports ROOT/report.PID.
    explicit Daemon(const Root& root);
    // Ends it when it still runs.
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // One read of the control device: the record, or any bytes. False when the daemon is behind
    // with some two hundred, or gone.
    bool record(uint32_t type, uint32_t data);
    bool rawRecord(const std::string& bytes);
    // As daemon_process.cpp lists them; false like record.
    bool command(const std::string& text);
    // A uevent; the second form from another sender than the kernel.
    void uevent(const std::string& text, UeventSender sender = {0, 1});
    // A datagram from the app; lost when the daemon is behind.
    void datagram(const std::string& bytes);

    // What it asked for since the last call.
    std::vector<std::string> takeNotes();
    // Waits until everything sent so far has been handled. False when the process ends instead.
    bool settle();
    // Waits for a condition, until the process ends; false then, or when nothing comes of it for
    // so long that it never will.
    bool waitFor(const std::function<bool()>& condition);

    bool isRunning();
    // Command "end"; its exit status.
    int end();
    // Waits until it ends. 0 to 255, or -1 when it does not, or dies of a signal.
    int exitStatus();
    // How many there are now: open descriptors, threads.
    int descriptors() const;
    int threads() const;
    // How many lines of the log contain the text.
    int count(const std::string& text) const;
    // What the sanitizers reported, empty when nothing.
    std::string report() const;
    // Where it stands: the end of its log, and what each thread waits in.
    std::string state() const;

  private:
    void start(const int control[2], const int notes[2], const int uevents[2]);
    bool send(char kind, const std::string& bytes);
    void waitForEnd(int options);
    std::string procFolder() const;
    int entriesOf(const std::string& folder) const;

    const Root& root;
    pid_t pid = -1;
    int status = 0;
    bool running = false;
    int controlEnd = -1;
    int notesEnd = -1;
    int ueventsEnd = -1;
    int appSocket = -1;  // a datagram socket
    std::vector<std::string> kept;
    unsigned echoes = 0;
};

}  // namespace uafd::process
