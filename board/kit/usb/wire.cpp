// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/wire.h"

#include <map>
#include <sstream>

namespace board {
namespace {

constexpr int64_t kSlots = 64;  // a multiple of every interval that a test uses

}  // namespace

void Wire::command(const std::string& text, int64_t at) {
    ModuleControl::command(at == kAtOnce ? text : text + " at=" + std::to_string(at));
}

void Wire::restore() {
    for (const char* text : {"clear", "speed high", "plug"}) {
        command(text);
    }
}

void Wire::poll(const std::string& endpoint, bool on, int64_t at) {
    command("poll " + endpoint + (on ? " 1" : " 0"), at);
}

void Wire::fault(const std::string& endpoint, const std::string& fault, int times, int64_t at) {
    command("fault " + endpoint + " " + fault + " times=" + std::to_string(times), at);
}

int64_t Wire::counterOrZero(const std::string& key) const {
    const std::map<std::string, int64_t> values = counters();
    const auto found = values.find(key);
    return found == values.end() ? 0 : found->second;
}

int64_t Wire::uframeIn(int64_t ms) const {
    return (uframe() + ms * kUframesPerMs) / kSlots * kSlots + kSlots;
}

Ns Wire::uframeTime(int64_t uframe) const {
    const std::map<std::string, int64_t> values = counters();
    const __int128 parts = 1000000000;
    const __int128 count = uframe - values.at("ppb_uframe");
    return values.at("ppb_ns") +
           static_cast<Ns>(count * (kMs / kUframesPerMs) * parts / (parts + values.at("ppb")));
}

std::vector<WireEvent> Wire::events() const {
    std::vector<WireEvent> events;
    std::istringstream lines(contents("/proc/usb_wire_log"));
    WireEvent event{};
    while (lines >> event.at >> event.uframe && lines.get() == ' ' && getline(lines, event.text)) {
        events.push_back(event);
    }
    return events;
}

std::vector<int64_t> Wire::uframesOf(const std::string& beginning, int64_t since) const {
    std::vector<int64_t> uframes;
    for (const WireEvent& event : events()) {
        if (event.uframe >= since && event.text.compare(0, beginning.size(), beginning) == 0) {
            uframes.push_back(event.uframe);
        }
    }
    return uframes;
}

}  // namespace board
