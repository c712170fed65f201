// SPDX-License-Identifier: Apache-2.0
// What can be known of the daemon, the gadget's card and the app from outside, without a message,
// an opened FIFO or anything else that one of them would notice. An optional without a value stands
// for what this user or this system cannot tell. One thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "companion/tool/processes.h"

namespace uafd {

// A PCM of the gadget's card. The daemon has it open while the host's stream is on.
struct PcmFacts {
    std::string state;  // "closed", or ALSA's state, such as "RUNNING"; empty without a card
    std::string format;
    int rate = 0;  // frames a second
    int channels = 0;
    int periodFrames = 0;
    int bufferFrames = 0;
    int64_t movedFrames = 0;  // between card and host, since the stream's start
    int64_t waitingFrames =
        0;  // in the card: of the speaker for the daemon, of the microphone for the host
    std::string started;                   // when; differs at every start of the stream
    std::optional<double> movedPerSecond;  // since the last look
    int restarts = 0;  // since the first look: the host's, or the daemon's after an xrun

    bool isOn() const { return !state.empty() && state != "closed"; }
};

// One direction.
struct StreamFacts {
    PcmFacts pcm;
    std::optional<bool> hasFifo;
    std::optional<bool> isDaemonsEndOpen;
    std::optional<Process> app;  // who has the app's end; nobody if `isAppKnown`
    bool isAppKnown = false;

    // What only the app is told, so known only if this program is the app.
    std::optional<int> volume;  // in the unit of the gadget driver
    std::optional<int> muted;
    std::optional<double> peakDb;  // of the speaker, since the last look
    std::optional<double> rmsDb;
    std::optional<int64_t> takenBlocks;  // of the microphone, since this program's start
    std::optional<int64_t> lostBlocks;   // which the daemon did not take
};

struct ServiceFacts {
    std::string state;  // systemd's word, such as "active"
    int restarts = 0;   // by systemd
};

struct Facts {
    enum Daemon {
        kAbsent,
        kStarting,     // it waits for both FIFOs, or for the gadget
        kRunning,      // its socket takes messages
        kStopped,      // by a signal or a debugger, or it has ended and nobody has taken its status
        kUnreachable,  // its socket is not for this user
    };
    Daemon daemon = kAbsent;
    pid_t pid = 0;  // of the daemon; 0 when its process is not visible
    std::optional<ProcessState> process;
    std::optional<double> cpuPercent;     // since the last look
    std::optional<ServiceFacts> service;  // where systemd runs it
    std::string gadget;                 // the driver's word, such as "CONFIGURED"; empty without it
    int card = -1;                      // the gadget's; -1: none
    std::optional<bool> takesMessages;  // whether an app has the socket for the daemon's messages
    StreamFacts speaker;
    StreamFacts microphone;
};

class Watcher {
  public:
    // Below `root` are the system's /proc, /sys and /run; an empty text is this system.
    explicit Watcher(std::string root) : root(std::move(root)) {}
    // What holds now.
    const Facts& look();

  private:
    void lookAtDaemon();
    void lookAtService();
    void lookAtApp();
    PcmFacts lookAtPcm(const char* name, const PcmFacts& last, double passedS) const;

    const std::string root;
    const std::string proc = root + "/proc";
    int64_t lookedNs = 0;
    pid_t serviceAskedFor = 0;
    Facts before;  // the last look
    Facts facts;
};

}  // namespace uafd
