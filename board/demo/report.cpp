// SPDX-License-Identifier: Apache-2.0
#include "board/demo/report.h"

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

Row countRow(const char* key, const char* title, int64_t toApp, int64_t toHost) {
    return {key, title, static_cast<double>(toApp), static_cast<double>(toHost), 0};
}

Row timeRow(const char* key, const char* title, Ns toApp, Ns toHost) {
    return {key, title, static_cast<double>(toApp) / kMs, static_cast<double>(toHost) / kMs, 2};
}

std::string tableText(const std::vector<Row>& rows) {
    char line[120];
    snprintf(line, sizeof line, "%-40s %14s %14s\n", "", "host to app", "app to host");
    std::string text = line;
    for (const Row& row : rows) {
        snprintf(line, sizeof line, "%-40s %14.*f %14.*f\n", row.title, row.decimals, row.toApp,
                 row.decimals, row.toHost);
        text += line;
    }
    return text;
}

std::string tableJson(const std::vector<Row>& rows) {
    std::string json = "{";
    for (const Row& row : rows) {
        char member[120];
        snprintf(
            member, sizeof member, "%s\n  \"%s\": {\"host_to_app\": %.*f, \"app_to_host\": %.*f}",
            json.size() > 1 ? "," : "", row.key, row.decimals, row.toApp, row.decimals, row.toHost);
        json += member;
    }
    return json + "\n}\n";
}

}  // namespace board
