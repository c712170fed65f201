// SPDX-License-Identifier: Apache-2.0
// What is measured: the daemon, or programs that do its work on the same gadget card. One thread.
#pragma once

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

// The daemon first, then the minimal loops, then the programs of others. Helpers that speak play
// kVoiceFile.
constexpr char kVoiceFile[] = "/tmp/voice.raw";
std::vector<Subject> speakerSubjects();
std::vector<Subject> micSubjects();
std::vector<Subject> bothSubjects();

}  // namespace bench
