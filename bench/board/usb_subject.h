// SPDX-License-Identifier: Apache-2.0
// What is measured over USB: a gadget, and the programs between its card and the app.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "bench/board/subject.h"

namespace bench {

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
