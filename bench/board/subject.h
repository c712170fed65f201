// SPDX-License-Identifier: Apache-2.0
// What is measured: the daemon, or programs that do its work on the same gadget card or over USB;
// and their processes. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

#include "board/kit/clock.h"

namespace bench {

struct Command {
    std::vector<std::string> words;  // the program's path and its arguments
    std::string input;               // file that is its standard input, or none
    std::string output;              // and its standard output
};

// The words are those of `text` between blanks.
Command commandOf(const std::string& text, const std::string& input = "",
                  const std::string& output = "");

struct Subject {
    std::string name;
    std::vector<Command> commands;  // measured together
    std::vector<Command> helpers;   // do the app's part; run before them and are not measured
    bool speaksToApp;               // the app's FIFOs are used, and in the app's format
};

// Processes started from commands; the destructor ends them.
class Processes {
  public:
    // `realtime`: at SCHED_FIFO priority 58, as the daemon's streaming threads. Their messages go
    // to /out/NAME.stderr.
    Processes(const std::string& name, const std::vector<Command>& commands, bool realtime);
    ~Processes();
    Processes(const Processes&) = delete;
    Processes& operator=(const Processes&) = delete;

    const std::vector<pid_t>& pids() const { return processIds; }
    bool allRun() const;

    const board::Ns startedAt;

  private:
    std::vector<pid_t> processIds;
};

// The card between alsaloop and the app; throws when it does not load.
void loadLoopbackCard(int index);

// Noise, for programs that stand for an app which speaks. They need more of it than they have time
// to play.
constexpr char kVoiceFile[] = "/tmp/voice.raw";
void putVoice(int64_t samples);

// The daemon first, then the minimal loops, then the programs of others.
std::vector<Subject> speakerSubjects();
std::vector<Subject> micSubjects();
std::vector<Subject> bothSubjects();

// Over USB: a gadget, and the programs between its card and the app.
struct UsbSubject {
    std::string name;
    std::string function;  // the gadget's, in configfs
    std::map<std::string, std::string> attributes;
    size_t channels;  // of the gadget's streams
    std::vector<Command> commands;
    // The app plays and records on the loopback card instead of the FIFOs.
    bool usesLoopback;
};

// The loopback card's sides for the app; the programs have the others.
constexpr char kAppHears[] = "hw:3,1,0";
constexpr char kAppSpeaks[] = "hw:3,0,1";

// The daemon first; at the end each gadget with nobody at its card. They do what both directions
// have in common.
std::vector<UsbSubject> usbSubjects(bool speaker, bool mic);

}  // namespace bench
