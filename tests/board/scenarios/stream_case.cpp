// SPDX-License-Identifier: Apache-2.0
#include "tests/board/scenarios/stream_case.h"

#include <algorithm>
#include <stdexcept>

namespace uafd {
namespace {

using namespace board;

constexpr int64_t kUsbFrame = 48;  // audio frames
constexpr int64_t kPeriod = 240;

bool beginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

// Lines that repeat regularly, and the line about each record.
bool isRepetition(const LogLine& line) {
    return line.tag == "UAFCBM" || beginsWith(line.text, "read msg:") ||
           beginsWith(line.text, "loopcnt ") || beginsWith(line.text, "buffer loopcnt ");
}

bool isSpeakers(const Direction& direction) {
    return direction == kSpeakerDirection;
}

Lines met(const Direction& direction, const char* error, const char* what) {
    return {"D UAFSND: stream recovery from ...",
            std::string("D UAFSND: xrun_recovery: ") + direction.pcm + " xrun, err " + error,
            std::string("D UAFSND: ") + what};
}

}  // namespace

Lines times(int count, const Lines& lines) {
    Lines all;
    for (int i = 0; i < count; ++i) {
        all = all + lines;
    }
    return all;
}

namespace stream_log {

Lines xrunMet(const Direction& direction) {
    return met(direction, "-32", isSpeakers(direction) ? "overrun..." : "underrun...");
}

Lines suspendMet(const Direction& direction) {
    return met(direction, "-86", "suspend...");
}

Lines ready() {
    return {"D UAFSND: ready "};
}

Lines kickStart(const Direction& direction) {
    return isSpeakers(direction) ? Lines{} : Lines{"D UAFSRC: need to kick start"};
}

Lines recovery(const Direction& direction) {
    return xrunMet(direction) + ready() + kickStart(direction);
}

Lines failedPrepare(const Direction& direction, const std::string& cause, int state) {
    const std::string error = std::string("E ") + direction.tag + ": ";
    return Lines{"D UAFSND: Can't recovery from " + cause + ", prepare failed: Input/output error",
                 error + "ALSA xrun recovery failed (Input/output error)", error + "rc=-5"} +
           stopRequest(state);
}

Lines failure(const Direction& direction, const std::string& what, int state) {
    return Lines{std::string("E ") + direction.tag + ": " + what} + stopRequest(state);
}

Lines stopRequest(int state) {
    return {"D UAFCH: intfUpdate to 0, current state " + std::to_string(state)};
}

Lines stop(const Direction& direction) {
    const std::string stopped = "D UAFCH: UAF channel stopped. Current state is (2)";
    if (isSpeakers(direction)) {
        return {"D UAFSNK: stop, closing hw:#", "D UAFSNK: stop, closing /tmp/usbAudioFifoRx",
                stopped, "D UAFSNK: exit, loopcnt=#, pcmRead #, fifoWrite #"};
    }
    return {"D UAFSRC: stopping buffer thread", "D UAFSRC: exit buffer loop, loopcnt=#, fifoRead #",
            "D UAFSRC: stop, close hw:#", stopped, "D UAFSRC: exit, loopcnt=#, pcmWrite #"};
}

}  // namespace stream_log
void StreamCase::switchOn() {
    const Moment before = mark();
    host.command(std::string(direction().name) + " on");
    waitForStarts(1, before);
    if (!waitForChannel(direction().channel, true, before.messages)) {
        throw std::runtime_error(std::string(direction().name) + " does not start");
    }
}

void StreamCase::switchOff() {
    const size_t messages = app->messages().size();
    host.command(std::string(direction().name) + " off");
    if (!waitForChannel(direction().channel, false, messages)) {
        throw std::runtime_error(std::string(direction().name) + " does not stop");
    }
}

void StreamCase::command(const std::string& verb, const std::string& rest) {
    host.command(verb + " " + direction().name + (rest.empty() ? "" : " " + rest));
}

void StreamCase::arm(const std::string& fault) {
    host.command(std::string("fault ") + direction().pcm + "." + fault);
}

void StreamCase::deliver(bool on) {
    queue(direction().record, on ? 1 : 0);
}

void StreamCase::waitForStarts(int times, const Moment& since) {
    const std::string start = std::string(direction().pcm) + " start 0";
    if (!waitFor([&] { return host.countEvents(start, since.at) >= times; })) {
        throw std::runtime_error(std::string(direction().pcm) + " is not started");
    }
}

// The first end of a period at or after this many frames, counted from the PCM's last start.
int64_t StreamCase::nextPeriodAt(int64_t frames) {
    const std::string start = std::string(direction().pcm) + " start 0";
    const std::vector<HostEvent>& events = host.events();
    const auto last = std::find_if(events.rbegin(), events.rend(),
                                   [&](const auto& event) { return event.text == start; });
    const int64_t begin = movedBy(last->at);
    return begin + (frames - begin + kPeriod - 1) / kPeriod * kPeriod;
}

int64_t StreamCase::waitForEarlyInPeriod() {
    const int64_t begin = nextPeriodAt(movedBy(now()) + kPeriod);
    sleepUntil(host.frameTime(direction().name, begin + kUsbFrame));
    return begin;
}

void StreamCase::injureInPeriod(const std::string& injury, int usbFrame) {
    const int64_t soon = movedBy(now()) + 4 * kPeriod;
    command(injury, "at=" + std::to_string(nextPeriodAt(soon) + usbFrame * kUsbFrame));
}

Moment StreamCase::mark() {
    return {now(), daemon.mark(), app->messages().size()};
}

void StreamCase::expectLog(const Moment& since, const Lines& wanted) {
    Lines said;
    const std::vector<LogLine>& log = daemon.log();
    for (size_t i = since.log; i < log.size(); ++i) {
        if (!isRepetition(log[i])) {
            said.push_back(log[i].brief());
        }
    }
    const bool same = said.size() == wanted.size() &&
                      std::equal(said.begin(), said.end(), wanted.begin(), matches);
    if (!same) {
        EXPECT_EQ(said, wanted);
    }
}

std::vector<std::string> StreamCase::requests(const Moment& since) {
    const std::string prefix = std::string(direction().pcm) + " ";
    std::vector<std::string> requests;
    for (const HostEvent& event : host.eventsSince(since.at)) {
        if (beginsWith(event.text, prefix)) {
            requests.push_back(event.text.substr(prefix.size()));
        }
    }
    return requests;
}

std::vector<Message> StreamCase::told(const Moment& since) const {
    return app->messageValues(since.messages);
}

// How many audio frames of the host's stream had moved at that time.
int64_t StreamCase::movedBy(Ns at) const {
    const auto values = host.counters();
    const std::string name = direction().name;
    return values.at(name + ".on_frames") + (at - values.at(name + ".on_ns")) / kMs * kUsbFrame;
}

void StreamCase::expectStopped(const Moment& since, const Lines& log, Ns limit) {
    EXPECT_TRUE(waitForChannel(direction().channel, false, since.messages, limit));
    ASSERT_TRUE(hasThreads(kIdleThreads));
    expectLog(since, log + stream_log::stop(direction()));
    EXPECT_EQ(told(since), (std::vector<Message>{{direction().channel, 0}}));
}

void StreamCase::expectStartable() {
    constexpr int64_t enough = 5760;  // 120 ms
    const Moment before = mark();
    RampCheck sound(this, direction());
    deliver(true);
    waitForStarts(1, before);
    sleepFor(200 * kMs);
    sound.collect();
    ASSERT_FALSE(sound.sections().empty());
    EXPECT_GT(sound.sections().back().frames, enough);
    EXPECT_EQ(told(before), (std::vector<Message>{{direction().channel, 1}}));
}

void StreamCase::expectHealthy(RampCheck* sound, Ns from) {
    const Ns to = from + kLook;
    const Spread latency = sound->latency(from, to);
    EXPECT_GE(latency.smallest, either(4 * kMs, 11 * kMs)) << inMs(latency);
    EXPECT_LE(latency.largest, either(9 * kMs, 21 * kMs)) << inMs(latency);
    for (const Break& gap : sound->breaks()) {
        EXPECT_TRUE(gap.at < from || gap.at >= to)
            << "after " << (gap.at - from) / kMs << " ms " << gap.silent << " samples silent, "
            << gap.lost << " frames lost";
    }
}

}  // namespace uafd
