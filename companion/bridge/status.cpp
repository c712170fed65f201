// SPDX-License-Identifier: Apache-2.0
#include "companion/bridge/status.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>

#include "companion/bridge/json.h"

namespace uafd {
namespace {

constexpr float kSilence = 0x1p-16F;  // less than a sample of 16 bits can be

double decibels(float peak) {
    return 20 * std::log10(std::max(peak, kSilence));
}

std::string lineOf(const SideStatus& side) {
    char text[64];
    const PathFacts& facts = side.facts;
    if (side.device.empty()) {
        return std::string(side.shortName) + " not used";
    }
    if (!side.hasCard) {
        return std::string(side.shortName) + " has no card";
    }
    if (!facts.isRunning) {
        snprintf(text, sizeof text, "%s off, %" PRId64 " xruns", side.shortName,
                 facts.counts.xruns);
    } else {
        snprintf(text, sizeof text, "%s %4.0f dB %3.0f ms %+5.0f ppm, %" PRId64 " xruns",
                 side.shortName, decibels(side.peak), facts.latencyMs, facts.ppm,
                 facts.counts.xruns);
    }
    return text;
}

std::string jsonOf(const SideStatus& side) {
    const PathFacts& facts = side.facts;
    return Json()
        .word("device", side.device)
        .flag("card", side.hasCard)
        .flag("running", facts.isRunning)
        .number("peak_db", decibels(side.peak))
        .number("latency_ms", facts.latencyMs)
        .number("ppm", facts.ppm)
        .whole("xruns", facts.counts.xruns)
        .whole("lost_frames", facts.counts.lostFrames)
        .done();
}

}  // namespace

std::string lineOf(const SideStatus& speaker, const SideStatus& microphone) {
    return lineOf(speaker) + " | " + lineOf(microphone);
}

std::string jsonOf(double seconds, bool hasDaemon, const SideStatus& speaker,
                   const SideStatus& microphone) {
    Json json;
    json.number("seconds", seconds).flag("daemon", hasDaemon);
    for (const SideStatus* side : {&speaker, &microphone}) {
        json.raw(side->name, side->device.empty() ? "null" : jsonOf(*side));
    }
    return json.done();
}

}  // namespace uafd
