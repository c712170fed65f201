// SPDX-License-Identifier: Apache-2.0
#include "companion/tool/top_view.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <utility>

#include "companion/bridge/json.h"
#include "companion/tool/level.h"

namespace uafd {
namespace {

constexpr size_t kLabelWidth = 24;
constexpr size_t kColumnMin = 18;
constexpr size_t kColumnMax = 40;
constexpr size_t kTopicWidth = 10;  // of the labels at the top
constexpr int kBarWidth = 8;
constexpr char kUnknown[] = "-";
constexpr char kHidden[] = "not visible";  // to this user

template <typename... Values>
std::string format(const char* pattern, Values... values) {
    char text[120];
    snprintf(text, sizeof text, pattern, values...);
    return text;
}

std::string padded(std::string text, size_t width) {
    text.resize(std::max(text.size() + 1, width), ' ');
    return text;
}

// ---- Single facts ------------------------------------------------------------------------------

Piece daemonOf(const Facts& facts) {
    switch (facts.daemon) {
        case Facts::kRunning:
            return {"running", Tone::kGood};
        case Facts::kStarting:
            return {"starting", Tone::kOdd};
        case Facts::kStopped:
            return {"stopped", Tone::kBad};
        case Facts::kUnreachable:
            return {"unreachable", Tone::kOdd};
        default:
            return {"absent", Tone::kBad};
    }
}

std::string durationOf(double seconds) {
    const auto whole = static_cast<long>(seconds);
    const long days = whole / 86400;
    return (days > 0 ? format("%ld d ", days) : "") +
           format("%ld:%02ld:%02ld", whole / 3600 % 24, whole / 60 % 60, whole % 60);
}

std::string processOf(const Facts& facts) {
    if (!facts.process) {
        return facts.daemon == Facts::kRunning ? "its process is not visible" : "";
    }
    const ProcessState& process = *facts.process;
    const std::string cpu = facts.cpuPercent ? format("%.1f %% cpu, ", *facts.cpuPercent) : "";
    return format("pid %d, up %s, %d threads, ", facts.pid, durationOf(process.uptimeS).c_str(),
                  process.threads) +
           cpu + format("%.1f MiB", static_cast<double>(process.memoryKib) / 1024);
}

Piece serviceOf(const std::optional<ServiceFacts>& service) {
    if (!service) {
        return {kUnknown};
    }
    return {service->state, service->state == "active" ? Tone::kGood : Tone::kBad};
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(tolower(letter)); });
    return text;
}

Piece streamOf(const StreamFacts& stream) {
    if (stream.pcm.state.empty()) {
        return {kUnknown};
    }
    return stream.pcm.isOn() ? Piece{"on", Tone::kGood} : Piece{"off"};
}

Piece stateOf(const StreamFacts& stream) {
    const std::string& state = stream.pcm.state;
    const bool isGood = state == "RUNNING" || state == "closed" || state.empty();
    return {state.empty() ? kUnknown : lower(state), isGood ? Tone::kPlain : Tone::kOdd};
}

Piece shapeOf(const StreamFacts& stream) {
    const PcmFacts& pcm = stream.pcm;
    return {pcm.rate == 0 ? kUnknown
                          : format("%d Hz, %d ch, %s", pcm.rate, pcm.channels, pcm.format.c_str())};
}

Piece movedOf(const StreamFacts& stream) {
    return {stream.pcm.isOn() ? std::to_string(stream.pcm.movedFrames) : kUnknown};
}

Piece speedOf(const StreamFacts& stream) {
    return {stream.pcm.movedPerSecond ? format("%.0f", *stream.pcm.movedPerSecond) : kUnknown};
}

Piece waitingOf(const StreamFacts& stream) {
    const PcmFacts& pcm = stream.pcm;
    if (pcm.rate == 0 || pcm.bufferFrames == 0) {
        return {kUnknown};
    }
    const double part = static_cast<double>(pcm.waitingFrames) / pcm.bufferFrames;
    const long filled = std::clamp(std::lround(part * kBarWidth), 0L, long{kBarWidth});
    const std::string bar(static_cast<size_t>(filled), '#');
    return {format("%4.1f ms |%-*s|", 1000.0 * static_cast<double>(pcm.waitingFrames) / pcm.rate,
                   kBarWidth, bar.c_str())};
}

Piece restartsOf(const StreamFacts& stream) {
    const int restarts = stream.pcm.restarts;
    return {std::to_string(restarts), restarts == 0 ? Tone::kPlain : Tone::kOdd};
}

Piece daemonsEndOf(const StreamFacts& stream) {
    if (!stream.hasFifo.value_or(true)) {
        return {"no FIFO", Tone::kOdd};
    }
    return {!stream.isDaemonsEndOpen ? kHidden : *stream.isDaemonsEndOpen ? "open" : "closed"};
}

Piece appsEndOf(const StreamFacts& stream) {
    if (stream.app) {
        return {stream.app->name + " (" + std::to_string(stream.app->pid) + ")"};
    }
    if (!stream.isAppKnown) {
        return {kHidden};
    }
    return {"nobody", stream.pcm.isOn() ? Tone::kBad : Tone::kPlain};
}

Piece levelOf(const StreamFacts& stream) {
    return {stream.peakDb
                ? format("%5.1f dB |%s|", *stream.peakDb, barOf(*stream.peakDb, kBarWidth).c_str())
                : kUnknown};
}

Piece volumeOf(const StreamFacts& stream) {
    return {(stream.volume ? std::to_string(*stream.volume) : kUnknown) +
            std::string(stream.muted.value_or(0) != 0 ? ", muted" : "")};
}

Piece lostOf(const StreamFacts& stream) {
    if (!stream.lostBlocks) {
        return {kUnknown};
    }
    const int64_t lost = *stream.lostBlocks;
    return {std::to_string(lost), lost > 0 && stream.pcm.isOn() ? Tone::kOdd : Tone::kPlain};
}

Piece messagesOf(const Facts& facts) {
    if (!facts.takesMessages) {
        return {kHidden};
    }
    return *facts.takesMessages ? Piece{"taken"} : Piece{"not taken", Tone::kOdd};
}

// ---- Lines -------------------------------------------------------------------------------------

struct Row {
    const char* label;
    Piece (*fact)(const StreamFacts&);
    bool isForApp;  // shown if this program is the app
};

constexpr Row kRows[] = {
    {"stream", streamOf, false},
    {"card", stateOf, false},
    {"format", shapeOf, false},
    {"frames", movedOf, false},
    {"frames a second", speedOf, false},
    {"waiting in the card", waitingOf, false},
    {"restarts", restartsOf, false},
    {"FIFO, daemon's end", daemonsEndOf, false},
    {"FIFO, app's end", appsEndOf, false},
    {"level", levelOf, true},
    {"volume", volumeOf, true},
    {"blocks lost", lostOf, true},
};

Line lineOf(const char* label, Piece word, const std::string& rest) {
    word.text = padded(word.text, kLabelWidth - kTopicWidth);
    return {{padded(label, kTopicWidth)}, word, {rest}};
}

// ---- JSON --------------------------------------------------------------------------------------

template <typename Value>
std::optional<int64_t> wholeIf(bool isKnown, Value value) {
    return isKnown ? std::optional(static_cast<int64_t>(value)) : std::nullopt;
}

std::optional<int64_t> flagOf(std::optional<bool> flag) {
    return wholeIf(flag.has_value(), flag.value_or(false) ? 1 : 0);
}

std::string jsonOf(const StreamFacts& stream) {
    const PcmFacts& pcm = stream.pcm;
    const bool hasShape = pcm.rate != 0;
    Json json;
    json.whole("on", wholeIf(!pcm.state.empty(), pcm.isOn() ? 1 : 0))
        .word("card_state", pcm.state)
        .word("format", pcm.format)
        .whole("rate", wholeIf(hasShape, pcm.rate))
        .whole("channels", wholeIf(hasShape, pcm.channels))
        .whole("period_frames", wholeIf(hasShape, pcm.periodFrames))
        .whole("buffer_frames", wholeIf(hasShape, pcm.bufferFrames))
        .whole("frames", wholeIf(pcm.isOn(), pcm.movedFrames))
        .number("frames_per_second", pcm.movedPerSecond)
        .whole("waiting_frames", wholeIf(pcm.isOn(), pcm.waitingFrames))
        .whole("restarts", pcm.restarts)
        .whole("fifo", flagOf(stream.hasFifo))
        .whole("daemon_end_open", flagOf(stream.isDaemonsEndOpen))
        .whole("app", wholeIf(stream.isAppKnown, stream.app ? 1 : 0))
        .whole("app_pid", wholeIf(stream.app.has_value(), stream.app ? stream.app->pid : 0))
        .word("app_name", stream.app ? stream.app->name : "")
        .whole("volume", stream.volume)
        .whole("mute", stream.muted)
        .number("peak_db", stream.peakDb)
        .number("rms_db", stream.rmsDb)
        .whole("blocks_taken", stream.takenBlocks)
        .whole("blocks_lost", stream.lostBlocks);
    return json.done();
}

}  // namespace

std::vector<Line> viewOf(const Facts& facts, const std::string& time, size_t columns) {
    const size_t room = columns > kLabelWidth ? (columns - kLabelWidth) / 2 : 0;
    const size_t width = std::clamp(room, kColumnMin, kColumnMax);
    const Piece usb = {facts.gadget.empty() ? kUnknown : lower(facts.gadget),
                       facts.gadget == "CONFIGURED" ? Tone::kGood : Tone::kPlain};
    std::vector<Line> lines = {
        {{padded("uafd-companion top", kLabelWidth + 2 * width - time.size()), Tone::kTitle},
         {time}},
        {},
        lineOf("daemon", daemonOf(facts), processOf(facts)),
        lineOf("service", serviceOf(facts.service),
               facts.service ? format("%d restarts", facts.service->restarts) : ""),
        lineOf("usb", usb, facts.card < 0 ? "no gadget card" : format("card %d", facts.card)),
        lineOf("messages", messagesOf(facts), "by an app"),
        {},
        {{std::string(kLabelWidth, ' ')},
         {padded("speaker, to the app", width), Tone::kTitle},
         {"microphone, to the host", Tone::kTitle}},
    };
    for (const Row& row : kRows) {
        if (!row.isForApp || facts.microphone.lostBlocks) {
            Piece left = row.fact(facts.speaker);
            left.text = padded(left.text.substr(0, width - 1), width);
            lines.push_back({{padded(row.label, kLabelWidth)}, left, row.fact(facts.microphone)});
        }
    }
    return lines;
}

std::string textOf(const Line& line, size_t columns, bool isColoured) {
    static constexpr const char* kCodes[] = {"", "\033[1m", "\033[32m", "\033[33m", "\033[31m"};
    std::string text;
    size_t used = 0;
    for (const Piece& piece : line) {
        const std::string part = piece.text.substr(0, columns - used);
        const bool hasCode = isColoured && piece.tone != Tone::kPlain && !part.empty();
        used += part.size();
        text += hasCode ? kCodes[static_cast<size_t>(piece.tone)] + part + "\033[0m" : part;
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

std::string jsonOf(const Facts& facts, const std::string& time) {
    const bool hasProcess = facts.process.has_value();
    const ProcessState process = facts.process.value_or(ProcessState());
    Json json;
    json.word("time", time)
        .word("daemon", daemonOf(facts).text)
        .whole("pid", wholeIf(facts.pid != 0, facts.pid))
        .word("process_state", hasProcess ? std::string(1, process.letter) : "")
        .whole("threads", wholeIf(hasProcess, process.threads))
        .number("cpu_percent", facts.cpuPercent)
        .whole("memory_kib", wholeIf(hasProcess, process.memoryKib))
        .number("uptime_s", hasProcess ? std::optional(process.uptimeS) : std::nullopt)
        .word("service", facts.service ? facts.service->state : "")
        .whole("service_restarts",
               wholeIf(facts.service.has_value(), facts.service ? facts.service->restarts : 0))
        .whole("usb_state", wholeIf(!facts.gadget.empty(), facts.gadget == "CONFIGURED" ? 1 : 0))
        .whole("card", wholeIf(facts.card >= 0, facts.card))
        .whole("messages_taken", flagOf(facts.takesMessages))
        .raw("speaker", jsonOf(facts.speaker))
        .raw("mic", jsonOf(facts.microphone));
    return json.done() + "\n";
}

}  // namespace uafd
