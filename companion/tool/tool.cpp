#include "companion/tool/tool.h"

#include <cstdio>

#include "companion/tool/commands.h"

namespace {

enum class Argument { kNone, kOptional, kWanted };

struct Command {
    const char* name;
    Argument argument;
    int (*run)(const CommandLine& line);
};

constexpr Command kCommands[] = {
    {"record", Argument::kWanted, recordSpeaker}, {"play", Argument::kOptional, playAsMicrophone},
    {"loop", Argument::kNone, loopBack},          {"events", Argument::kNone, printEvents},
    {"volume", Argument::kWanted, setVolume},     {"mute", Argument::kWanted, setMute},
    {"meter", Argument::kNone, showLevel},        {"latency", Argument::kNone, measureLatency},
    {"check", Argument::kNone, checkDaemon},
};

int runCommand(const CommandLine& line) {
    for (const Command& command : kCommands) {
        if (line.command != command.name) {
            continue;
        }
        if (line.argument.empty() && command.argument == Argument::kWanted) {
            fprintf(stderr, "uafd-companion: %s wants an argument\n", command.name);
            return kExitUsage;
        }
        if (!line.argument.empty() && command.argument == Argument::kNone) {
            fprintf(stderr, "uafd-companion: %s takes no argument\n", command.name);
            return kExitUsage;
        }
        return command.run(line);
    }
    fprintf(stderr, "uafd-companion: no command %s; see uafd-companion --help\n",
            line.command.c_str());
    return kExitUsage;
}

}  // namespace

int runTool(int argc, char** argv) {
    CommandLine line;
    if (!readCommandLine(argc, argv, &line)) {
        return kExitUsage;
    }
    if (line.help) {
        fputs(kUsage, stdout);
        return kExitDone;
    }
    return runCommand(line);
}
