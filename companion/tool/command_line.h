// What the command line says. One thread.
#pragma once

#include <string>

struct CommandLine {
    std::string command;
    std::string argument;     // the command's own, as FILE; may be empty
    std::string directory;    // of FIFOs and sockets; empty is the daemon's
    double seconds = 0;       // how long; 0 is without end
    double waitSeconds = 10;  // for what must come
    int count = 0;            // how often; 0 is the command's own
    double toneHz = 0;        // 0 is no tone
    double levelDb = -12;     // of what is played, below full scale
    int volume = -2560;       // that check sets
    bool help = false;
};

// Fills `line`; false after it has said on standard error what it does not understand.
bool readCommandLine(int argc, char** argv, CommandLine* line);

// A whole number from `low` to `high`; false, without a word, for anything else.
bool readInt(const std::string& text, int low, int high, int* value);

// What --help prints.
extern const char kUsage[];
