// SPDX-License-Identifier: Apache-2.0
#include "tests/board/soak/disturbance.h"

#include "board/kit/sound.h"

namespace board {
namespace {

struct Kind {
    const char* name;
    Ns shortest;
    Ns longest;
};

// A stream's pause may be shorter or longer than the time for which a channel waits before it
// stops.
constexpr Kind kKinds[kDisturbanceKinds] = {
    {"app_late", 15 * kMs, 40 * kMs},
    {"app_deaf", 15 * kMs, 40 * kMs},
    {"mic_xrun", 0, 0},
    {"speaker_xrun", 0, 0},
    {"mic_stall", 15 * kMs, 300 * kMs},
    {"speaker_stall", 15 * kMs, 300 * kMs},
    {"mic_off", 5 * kMs, 300 * kMs},
    {"speaker_off", 5 * kMs, 300 * kMs},
};

const Kind& kindOf(DisturbanceKind kind) {
    return kKinds[static_cast<size_t>(kind)];
}

// The host sends one command and, after `time`, another.
void switchFor(Board* board, Ns time, const std::string& first, const std::string& then) {
    board->host.command(first);
    sleepFor(time);
    board->host.command(then);
}

}  // namespace

Disturbance disturbanceOf(int64_t seed, int64_t number) {
    const auto kind = static_cast<DisturbanceKind>(number % kDisturbanceKinds);
    const Kind& limits = kindOf(kind);
    const auto draw = static_cast<uint16_t>(noise(number + (seed << 32)));
    return {kind, limits.shortest + (limits.longest - limits.shortest) * draw / 65536};
}

const char* nameOf(DisturbanceKind kind) {
    return kindOf(kind).name;
}

void disturb(Board* board, const Disturbance& disturbance) {
    const Ns time = disturbance.length;
    switch (disturbance.kind) {
        case DisturbanceKind::kAppLate:
            board->app->stallSpeaking(time);
            sleepFor(time);
            break;
        case DisturbanceKind::kAppDeaf:
            board->app->pauseListening(true);
            sleepFor(time);
            board->app->pauseListening(false);
            break;
        case DisturbanceKind::kMicXrun:
            board->host.command("xrun mic");
            break;
        case DisturbanceKind::kSpeakerXrun:
            board->host.command("xrun speaker");
            break;
        case DisturbanceKind::kMicStall:
            switchFor(board, time, "stall mic 1", "stall mic 0");
            break;
        case DisturbanceKind::kSpeakerStall:
            switchFor(board, time, "stall speaker 1", "stall speaker 0");
            break;
        case DisturbanceKind::kMicOff:
            switchFor(board, time, "mic off", "mic on");
            break;
        case DisturbanceKind::kSpeakerOff:
            switchFor(board, time, "speaker off", "speaker on");
            break;
    }
}

}  // namespace board
