// SPDX-License-Identifier: Apache-2.0
#include "board/kit/timeline.h"

#include <algorithm>
#include <cstdio>

namespace board {
namespace {

// The cable monitor's heartbeat.
bool isTick(const LogLine& line) {
    return line.text.rfind("recvmsg error: <-1:11:", 0) == 0;
}

}  // namespace

void Timeline::add(Ns at, const std::string& who, const std::string& what) {
    entries.push_back({at, who, what});
}

void Timeline::addAllOf(DaemonBoard* board) {
    const std::vector<TimelineEntry> events = board->audioHost().events(start);
    entries.insert(entries.end(), events.begin(), events.end());
    // The log's stamps are truncated to the millisecond. Its lines are placed at that millisecond's
    // end, so that none comes before its cause.
    for (const LogLine& line : board->daemon.log()) {
        if (line.at >= start && !isTick(line)) {
            add(line.at + kMs, "daemon", line.brief());
        }
    }
    for (const ReceivedMessage& received : board->app->messages()) {
        add(received.at, "app", "is told: " + meaningOf(received.message));
    }
}

std::string Timeline::text() const {
    std::vector<TimelineEntry> sorted = entries;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const TimelineEntry& a, const TimelineEntry& b) { return a.at < b.at; });
    std::string text;
    for (const TimelineEntry& entry : sorted) {
        char head[48];
        snprintf(head, sizeof head, "%8.3f s  %-7s ",
                 static_cast<double>(entry.at - start) / kSecond, entry.who.c_str());
        text += head + entry.what + "\n";
    }
    return text;
}

std::string meaningOf(Message message) {
    static const char* const kNames[] = {"USB configured",  "speaker on",        "microphone on",
                                         "speaker volume",  "microphone volume", "speaker mute",
                                         "microphone mute", "sync-up, please"};
    const bool known = message.type < sizeof kNames / sizeof kNames[0];
    const bool isVolume = message.type == 3 || message.type == 4;
    const int value =
        isVolume ? static_cast<int16_t>(message.data & 0xFFFF) : static_cast<int>(message.data);
    return (known ? std::string(kNames[message.type]) : "type " + std::to_string(message.type)) +
           " = " + std::to_string(value);
}

}  // namespace board
