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
    : host_(host),
      seen_(host->events().size()),
      playbackOpen_(host->counter("playback.opens") > host->counter("playback.closes")) {}

void RecordWatch::look() {
    const auto& events = host_->events();
    for (; seen_ < events.size(); ++seen_) {
        see(events[seen_]);
    }
    noteWaiting(now());
    if (micOff_) {
        keepLonger(&micStop_, *micOff_, micOff_->since, now());
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
        waiting_.clear();  // it dropped what was queued
    } else if (event.text == "playback open 0") {
        playbackOpen_ = true;
    } else if (event.text == "playback close") {
        playbackOpen_ = false;
        if (micOff_) {
            keepLonger(&micStop_, *micOff_, micOff_->since, event.at);
            micOff_.reset();
        }
    }
}

void RecordWatch::seeQueued(const HostEvent& event) {
    const size_t count = event.text.find(kCount);
    const long records =
        count == std::string::npos ? 1 : atol(event.text.c_str() + count + sizeof kCount - 1);
    const Delay queued{0, event.at, event.text.substr(sizeof kQueued - 1)};
    waiting_.insert(waiting_.end(), static_cast<size_t>(records), queued);
}

void RecordWatch::seeRead(const HostEvent& event) {
    noteWaiting(event.at);
    lastRead_ = event.at;
    const size_t record = event.text.find("type=");
    if (record == std::string::npos) {
        return;  // failed
    }
    ++read_;
    if (!waiting_.empty()) {  // else queued before the watch began
        waiting_.pop_front();
    }
    seeWish({0, event.at, event.text.substr(record)});
}

// The record may want the microphone's stream on or off.
void RecordWatch::seeWish(const Delay& record) {
    const bool isUnbind = begins(record.what, "type=1 ");
    const bool isOff = record.what == "type=3 data=0x00000000";
    if (playbackOpen_ && (isUnbind || (isOff && !micOff_))) {
        micOff_ = record;
    } else if (!isOff && begins(record.what, "type=3 ")) {
        micOff_.reset();
    }
}

// The oldest waits until then.
void RecordWatch::noteWaiting(Ns until) {
    if (!waiting_.empty()) {
        const Delay& oldest = waiting_.front();
        keepLonger(&wait_, oldest, oldest.since, until);
        keepLonger(&absence_, oldest, std::max(oldest.since, lastRead_), until);
    }
}

}  // namespace board
