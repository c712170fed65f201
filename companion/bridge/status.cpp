// SPDX-License-Identifier: Apache-2.0
#include "companion/bridge/status.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>

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

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
        }
        result += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
    return result + "\"";
}

std::string jsonOf(const SideStatus& side) {
    if (side.device.empty()) {
        return "null";
    }
    const PathFacts& facts = side.facts;
    char text[256];
    snprintf(text, sizeof text,
             ",\"card\":%s,\"running\":%s,\"peak_db\":%.1f,\"latency_ms\":%.1f,\"ppm\":%.1f,"
             "\"xruns\":%" PRId64 ",\"lost_frames\":%" PRId64 "}",
             side.hasCard ? "true" : "false", facts.isRunning ? "true" : "false",
             decibels(side.peak), facts.latencyMs, facts.ppm, facts.counts.xruns,
             facts.counts.lostFrames);
    return "{\"device\":" + quoted(side.device) + text;
}

}  // namespace

std::string lineOf(const SideStatus& speaker, const SideStatus& microphone) {
    return lineOf(speaker) + " | " + lineOf(microphone);
}

std::string jsonOf(double seconds, bool hasDaemon, const SideStatus& speaker,
                   const SideStatus& microphone) {
    char text[80];
    snprintf(text, sizeof text, "{\"seconds\":%.1f,\"daemon\":%s", seconds,
             hasDaemon ? "true" : "false");
    return std::string(text) + ",\"" + speaker.name + "\":" + jsonOf(speaker) + ",\"" +
           microphone.name + "\":" + jsonOf(microphone) + "}";
}

}  // namespace uafd
