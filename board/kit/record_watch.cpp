// SPDX-License-Identifier: Apache-2.0
#include "board/kit/record_watch.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace board {
namespace {

constexpr char kQueued[] = "uac record ";
constexpr char kRead[] = "uac read ";
constexpr char kCount[] = " count=";

bool begins(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

void keepLonger(Delay* longest, const Delay& begun, Ns since, Ns until) {
    if (until - since > longest->time) {
        *longest = {until - since, since, begun.what};
    }
}

}  // namespace

std::string Delay::text() const {
    char numbers[64];
    snprintf(numbers, sizeof numbers, "%.3f ms, ", static_cast<double>(time) / kMs);
    std::string text = numbers + what;
    snprintf(numbers, sizeof numbers, " at %.3f s", static_cast<double>(since) / kSecond);
    return text + numbers;
}

RecordWatch::RecordWatch(Host* host)
    : host(host),
      seenEvents(host->events().size()),
      playbackOpen(host->counter("playback.opens") > host->counter("playback.closes")) {}

void RecordWatch::look() {
    const auto& events = host->events();
    for (; seenEvents < events.size(); ++seenEvents) {
        see(events[seenEvents]);
    }
    noteWaiting(now());
    if (micOff) {
        keepLonger(&longestMicStop, *micOff, micOff->since, now());
    }
}

void RecordWatch::see(const HostEvent& event) {
    if (begins(event.text, "lost ")) {
        throw std::runtime_error("the driver's events were not looked at in time");
    }
    if (begins(event.text, kQueued)) {
        seeQueued(event);
    } else if (begins(event.text, kRead)) {
        seeRead(event);
    } else if (begins(event.text, "uac INIT_SYNC 0")) {
        waiting.clear();  // it dropped what was queued
    } else if (event.text == "playback open 0") {
        playbackOpen = true;
    } else if (event.text == "playback close") {
        playbackOpen = false;
        if (micOff) {
            keepLonger(&longestMicStop, *micOff, micOff->since, event.at);
            micOff.reset();
        }
    }
}

void RecordWatch::seeQueued(const HostEvent& event) {
    const size_t count = event.text.find(kCount);
    const long records =
        count == std::string::npos ? 1 : atol(event.text.c_str() + count + sizeof kCount - 1);
    const Delay queued{0, event.at, event.text.substr(sizeof kQueued - 1)};
    waiting.insert(waiting.end(), static_cast<size_t>(records), queued);
}

void RecordWatch::seeRead(const HostEvent& event) {
    noteWaiting(event.at);
    lastRead = event.at;
    const size_t record = event.text.find("type=");
    if (record == std::string::npos) {
        return;  // failed
    }
    ++recordsRead;
    if (!waiting.empty()) {  // else queued before the watch began
        waiting.pop_front();
    }
    seeWish({0, event.at, event.text.substr(record)});
}

// The record may switch the microphone's stream on or off.
void RecordWatch::seeWish(const Delay& record) {
    const bool isUnbind = begins(record.what, "type=1 ");
    const bool isOff = record.what == "type=3 data=0x00000000";
    if (playbackOpen && (isUnbind || (isOff && !micOff))) {
        micOff = record;
    } else if (!isOff && begins(record.what, "type=3 ")) {
        micOff.reset();
    }
}

// The oldest record waits until then.
void RecordWatch::noteWaiting(Ns until) {
    if (!waiting.empty()) {
        const Delay& oldest = waiting.front();
        keepLonger(&longestWait, oldest, oldest.since, until);
        keepLonger(&longestAbsence, oldest, std::max(oldest.since, lastRead), until);
    }
}

}  // namespace board
