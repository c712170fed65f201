// SPDX-License-Identifier: Apache-2.0
// The two directions of sound through the daemon, as each side names them.
#pragma once

#include <cstdint>
#include <ostream>

namespace board {

struct Direction {
    const char* name;  // the host's stream, in its commands and counters
    const char* pcm;   // the gadget card's, in the driver's events and fault points
    const char* tag;   // of the daemon's channel, in its log
    uint32_t channel;  // the channel's message type, {channel, 1} when it goes on
    uint32_t record;   // the control device's record of the host switching it
};

constexpr Direction kSpeakerDirection{"speaker", "capture", "UAFSNK", 1, 2};
constexpr Direction kMicDirection{"mic", "playback", "UAFSRC", 2, 3};

inline bool operator==(const Direction& a, const Direction& b) {
    return a.channel == b.channel;
}

inline void PrintTo(const Direction& direction, std::ostream* out) {
    *out << direction.name;
}

}  // namespace board
