// SPDX-License-Identifier: Apache-2.0
// What the bridge tells about itself: a line for a terminal, and an object of JSON. Any thread.
#pragma once

#include <string>

#include "companion/bridge/path.h"

namespace uafd {

// One direction.
struct SideStatus {
    const char* shortName;    // on a terminal
    const char* name;         // in JSON
    std::string device = {};  // its ALSA name; empty when the bridge leaves this direction out
    bool hasCard = false;     // the device is open
    float peak = 0;           // 1 is full scale
    PathFacts facts = {};
};

// At most 80 characters.
std::string lineOf(const SideStatus& speaker, const SideStatus& microphone);
// `seconds`: since the start.
std::string jsonOf(double seconds, bool hasDaemon, const SideStatus& speaker,
                   const SideStatus& microphone);

}  // namespace uafd
