// SPDX-License-Identifier: Apache-2.0
// The daemon's process from a test's view: the test starts it, plays the gadget driver and the
// kernel for it, receives its requests and reads the sanitizers' reports; and the folder that is
// its root. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/process/outside.h"
#include "tests/support/temp_dir.h"

namespace uafd::process {

constexpr char kFifoRx[] = "/tmp/usbAudioFifoRx";
constexpr char kFifoTx[] = "/tmp/usbAudioFifoTx";
constexpr char kSocketRx[] = "/tmp/usbAudioUdsIpcRx";  // the app's
constexpr char kSocketTx[] = "/tmp/usbAudioUdsIpcTx";  // the daemon's

// What the daemon's process finds below its root: the app's FIFOs and the files of the kernel and
// of the platform. The files are removed with the object.
class Root {
  public:
    // Sets up a configured gadget, a plugged cable, a controller that is watched, and the board's
    // own capture running; no FIFO.
    Root();

    const std::string& path() const { return folder.path(); }
    std::string path(const std::string& name) const { return folder.path() + name; }
    std::string contents(const std::string& name) const;

    void makeFifos() const;
    void removeFifo(const std::string& name) const;
    // Writes the gadget's state file and the cable detector's.
    void setUsbState(const std::string& word) const;
    void setCable(bool plugged) const;
    // Whether the board's own card captures.
    void setOwnCapture(bool running) const;

  private:
    void put(const std::string& name, const std::string& text) const;

    TempDir folder;
};

class Daemon {
  public:
    // Its log is ROOT/log, the sanitizers' reports are ROOT/report.PID.
    explicit Daemon(const Root& root);
    // Kills the process if it still runs.
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // What one read of the control device returns: the record, or any bytes. False when the daemon
    // has some two hundred still to read, or has ended.
    bool record(uint32_t type, uint32_t data);
    bool rawRecord(const std::string& bytes);
    // A command of those in daemon_process.cpp; returns false like record.
    bool command(const std::string& text);
    // A uevent, from the kernel or from another sender.
    void uevent(const std::string& text, UeventSender sender = {0, 1});
    // A datagram from the app; lost when the daemon is behind.
    void datagram(const std::string& bytes);

    // The daemon's requests since the last call.
    std::vector<std::string> takeNotes();
    // Waits until everything sent so far has been handled. False when the process ends instead.
    bool settle();
    // Waits for a condition. False when the process has ended, or when so much time has passed that
    // the condition will never hold.
    bool waitFor(const std::function<bool()>& condition);

    bool isRunning();
    // Sends the command "end"; returns the exit status.
    int end();
    // Waits for the end of the process. Returns its exit status, 0 to 255, or -1 when it goes on or
    // a signal killed it.
    int exitStatus();
    // The number of descriptors that are open now, and of threads.
    int descriptors() const;
    int threads() const;
    // How many lines of the log contain the text.
    int count(const std::string& text) const;
    // The sanitizers' reports; empty when there are none.
    std::string report() const;
    // What the daemon is doing: the end of its log, and where each thread waits.
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
