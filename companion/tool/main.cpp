// SPDX-License-Identifier: Apache-2.0
// uafd-companion, a companion app for the command line: finds the command, reads its options, runs
// it.
#include <cmath>
#include <cstdio>
#include <getopt.h>
#include <string>
#include <uafd_companion.h>
#include <vector>

#include "companion/tool/command.h"

namespace uafd {
namespace {

char kName[] = "uafd-companion";  // not constant, as it is among the arguments
constexpr int kHelpWidth = 18;    // of an entry's name
constexpr int kFirstCode = 256;   // getopt_long's code for the first option; above all letters

constexpr char kSummary[] =
    R"(Usage: uafd-companion COMMAND [ARGUMENT] [OPTION]...

A companion app for the command line: takes the app's place at the FIFOs and sockets of uafd(8),
to try out a board from a shell. It may start before or after the daemon, and makes missing FIFOs.
The FILE - is standard input or output.

Commands:
)";
constexpr char kEnd[] = R"(
Exit status:
  0  done
  1  failed: standard error has the reason; or a step of check failed
  2  the command line was not understood
)";

// ---- Help --------------------------------------------------------------------------------------

void printEntry(const std::string& name, const char* help) {
    printf("  %-*s  %s\n", kHelpWidth, name.c_str(), help);
}

void printOptions(const char* heading, const Option* option) {
    if (option != nullptr) {
        printf("\n%s:\n", heading);
    }
    for (; option != nullptr; option = option->next) {
        const std::string name =
            std::string(option == &helpOption ? "-h, --" : "--") + option->name;
        printEntry(option->value == nullptr ? name : name + " " + option->value, option->help);
    }
}

std::string synopsisOf(const Command& command) {
    return *command.argument == '\0' ? command.name
                                     : std::string(command.name) + " " + command.argument;
}

void printHelp() {
    fputs(kSummary, stdout);
    for (const Command* at = Command::first(); at != nullptr; at = at->next) {
        printEntry(synopsisOf(*at), at->summary);
    }
    for (const Command* at = Command::first(); at != nullptr; at = at->next) {
        printOptions((std::string("Options of ") + at->name).c_str(), at->options);
    }
    printOptions("Options of every command", commonOptions);
    fputs(kEnd, stdout);
}

void printHelpOf(const Command& command) {
    printf("Usage: uafd-companion %s [OPTION]...\n\n%s\n", synopsisOf(command).c_str(),
           command.summary);
    printOptions("Options", command.options);
    printOptions("Options of every command", commonOptions);
}

// ---- Reading -----------------------------------------------------------------------------------

// To getopt_long a negative number is not an option if a space comes before it.
std::string guarded(const std::string& word) {
    double number = 0;
    return word[0] == '-' && readNumber(word, -HUGE_VAL, 0.0, &number) ? " " + word : word;
}
const char* unguarded(const char* word) {
    return word[0] == ' ' && word[1] == '-' ? word + 1 : word;
}

bool readValue(Option* option) {
    const std::string value = option->value == nullptr ? "" : unguarded(optarg);
    if (option->read(value)) {
        return true;
    }
    misused(std::string("--") + option->name + " " + value + ": needs " + option->range());
    return false;
}

// Reads options from words[1] on: without a command only the common ones, up to the first argument;
// with a command all of them, wherever they are. The arguments follow from words[optind] on. False,
// with a message, if it does not understand something.
bool readOptions(const Command* command, int count, char** words) {
    std::vector<Option*> known;
    std::vector<option> table;
    for (Option* at : {command == nullptr ? nullptr : command->options, commonOptions}) {
        for (; at != nullptr; at = at->next) {
            table.push_back({at->name, at->value == nullptr ? no_argument : required_argument,
                             nullptr, kFirstCode + static_cast<int>(known.size())});
            known.push_back(at);
        }
    }
    table.push_back({});
    const char* const letters = command == nullptr ? "+h" : "h";
    optind = 0;  // starts again
    int code = 0;
    while ((code = getopt_long(count, words, letters, table.data(), nullptr)) != -1) {
        const auto index = static_cast<size_t>(code - kFirstCode);
        if (code == '?' || !readValue(code == 'h' ? &helpOption : known[index])) {
            return false;
        }
    }
    return true;
}

// Prints what --help or --version asks for, if one of them was given.
bool hasAnswered(const Command* command) {
    if (versionOption) {
        printf("%s %s\n", kName, uafd_companion_version());
    } else if (helpOption && command != nullptr) {
        printHelpOf(*command);
    } else if (helpOption) {
        printHelp();
    }
    return versionOption || helpOption;
}

// `words` begin with the command's name.
int runCommand(int count, char** words) {
    const std::string name = words[0];
    Command* const command = Command::find(name);
    if (command == nullptr) {
        return misused("unknown command " + name);
    }
    words[0] = kName;
    if (!readOptions(command, count, words)) {
        return kExitUsage;
    }
    if (hasAnswered(command)) {
        return kExitDone;
    }
    const int arguments = count - optind;
    if (arguments == 0 && *command->argument != '\0' && *command->argument != '[') {
        return misused(name + ": " + command->argument + " is missing");
    }
    if (arguments > (*command->argument == '\0' ? 0 : 1)) {
        return misused(name + ": unexpected argument: " + unguarded(words[count - 1]));
    }
    return command->run(arguments == 0 ? "" : unguarded(words[optind]));
}

}  // namespace
}  // namespace uafd

using namespace uafd;

int main(int argc, char** argv) {
    std::vector<std::string> texts(argv, argv + argc);
    std::vector<char*> words;
    for (std::string& text : texts) {
        text = guarded(text);
        words.push_back(text.data());
    }
    words.push_back(nullptr);
    words[0] = kName;  // getopt_long's messages begin with it
    if (!readOptions(nullptr, argc, words.data())) {
        return kExitUsage;
    }
    if (hasAnswered(nullptr)) {
        return kExitDone;
    }
    return optind == argc ? misused("a command is missing")
                          : runCommand(argc - optind, &words[static_cast<size_t>(optind)]);
}
