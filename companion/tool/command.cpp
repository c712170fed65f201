// SPDX-License-Identifier: Apache-2.0
#include "companion/tool/command.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace uafd {
namespace {

Command* firstCommand = nullptr;

}  // namespace

Option* commonOptions = nullptr;
Text directoryOption{&commonOptions, "directory", "DIR",
                     "where the FIFOs and sockets are (default /tmp)"};
Text groupOption{&commonOptions, "group", "GROUP",
                 "the group of new files there (default: the daemon's, if possible)"};
Flag helpOption{&commonOptions, "help", "print this, or a command's own help, and exit"};
Flag versionOption{&commonOptions, "version", "print the version and exit"};

int misused(const std::string& what) {
    fprintf(stderr, "uafd-companion: %s; see uafd-companion --help\n", what.c_str());
    return kExitUsage;
}

int failed(const std::string& what, const std::string& reason) {
    fprintf(stderr, "uafd-companion: %s: %s\n", what.c_str(), reason.c_str());
    return kExitFailed;
}

template <typename T>
bool readNumber(const std::string& text, T low, T high, T* number) {
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value >= low && value <= high) ||
        static_cast<double>(static_cast<T>(value)) != value) {
        return false;
    }
    *number = static_cast<T>(value);
    return true;
}
template bool readNumber(const std::string& text, int low, int high, int* number);
template bool readNumber(const std::string& text, double low, double high, double* number);

template <typename T>
std::string rangeOf(T low, T high) {
    char text[80];
    snprintf(text, sizeof text, "a %snumber from %.9g to %.9g",
             std::is_integral_v<T> ? "whole " : "", static_cast<double>(low),
             static_cast<double>(high));
    return text;
}
template std::string rangeOf(int low, int high);
template std::string rangeOf(double low, double high);

Option::Option(Option** list, const char* optionName, const char* valueName,
               const char* helpText) noexcept
    : name(optionName), value(valueName), help(helpText) {
    while (*list != nullptr) {
        list = &(*list)->next;
    }
    *list = this;
}

bool Text::read(const std::string& text) {
    given = text;
    return !text.empty();
}

Command::Command(const char* commandName, const char* argumentName,
                 const char* summaryText) noexcept
    : name(commandName), argument(argumentName), summary(summaryText) {
    Command** at = &firstCommand;
    while (*at != nullptr && strcmp((*at)->name, name) < 0) {
        at = &(*at)->next;
    }
    next = *at;
    *at = this;
}

Command* Command::first() {
    return firstCommand;
}

Command* Command::find(const std::string& name) {
    Command* command = firstCommand;
    while (command != nullptr && command->name != name) {
        command = command->next;
    }
    return command;
}

}  // namespace uafd
