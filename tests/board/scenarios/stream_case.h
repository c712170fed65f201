// SPDX-License-Identifier: Apache-2.0
// The fixture of scenarios that run for each direction of sound: its host stream, driver, log and
// messages, and what is expected of them since a moment. Also what the daemon logs about a stream;
// '#' stands for any number.
#pragma once

#include <string>
#include <vector>

#include "board/kit/audio_host.h"
#include "board/kit/ramp_check.h"
#include "tests/board/board_case.h"

namespace uafd {

using Lines = std::vector<std::string>;

inline Lines operator+(Lines head, const Lines& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

Lines times(int count, const Lines& lines);

namespace stream_log {

// The beginning of a recovery, the end of one that succeeds, and the restart of the playback after
// a prepare.
Lines xrunMet(const board::Direction& direction);
Lines suspendMet(const board::Direction& direction);
Lines ready();
Lines kickStart(const board::Direction& direction);
// A whole recovery from an xrun.
Lines recovery(const board::Direction& direction);

// A prepare that fails with EIO after an "underrun", the log's word for every xrun, or a "suspend",
// up to the channel's own stop request.
Lines failedPrepare(const board::Direction& direction, const std::string& cause, int state);
// An error that the direction's channel reports, and its stop request in this state.
Lines failure(const board::Direction& direction, const std::string& what, int state);

Lines stopRequest(int state);
// A stop, from its fourth pass to its end.
Lines stop(const board::Direction& direction);

}  // namespace stream_log

// A stream is healthy again within a second of a fault; then it is checked for a while.
constexpr board::Ns kHealing = board::kSecond;
constexpr board::Ns kLook = 200 * board::kMs;

// The moment from which expectations count.
struct Moment {
    board::Ns at;
    size_t log;
    size_t messages;
};

class StreamCase : public Scenario, public testing::WithParamInterface<board::Direction> {
  protected:
    static board::Direction direction() { return GetParam(); }
    static bool isSpeaker() { return direction() == board::kSpeakerDirection; }
    // What differs between the directions.
    template <typename T>
    static T either(T speakers, T mics) {
        return isSpeaker() ? speakers : mics;
    }

    void SetUp() override { start(); }

    // Switch the host's stream. They return when the driver's PCM runs, or when the channel has
    // stopped.
    void switchOn();
    void switchOff();
    // Delivers the record of a switch by the host; the host's stream stays as it is.
    void deliver(bool on);
    // Sends a command about the direction: "xrun" becomes "xrun speaker".
    void command(const std::string& verb, const std::string& rest = "");
    // Arms a fault of the direction's PCM.
    void arm(const std::string& fault);
    // Causes an xrun or a suspend in the given USB frame of a period, 1 to 5, some periods from
    // now.
    void injureInPeriod(const std::string& injury, int usbFrame);
    // Waits for the second of a period's five USB frames; returns the direction's frame count at
    // the start of the period.
    int64_t waitForEarlyInPeriod();
    // Waits until the driver has started the PCM `times` times since the moment.
    void waitForStarts(int times, const Moment& since);

    Moment mark();
    // The whole log since the moment must be this, apart from lines that it repeats regularly.
    void expectLog(const Moment& since, const Lines& wanted);
    int said(const std::string& text, const Moment& since) { return daemon.count(text, since.log); }
    // What the daemon asked of the driver for this direction.
    std::vector<std::string> requests(const Moment& since);
    // The messages to the app.
    std::vector<board::Message> told(const Moment& since) const;

    // The channel must stop, with `log` and the stop in its log.
    void expectStopped(const Moment& since, const Lines& log, board::Ns limit = board::kSecond);
    // A record of the host must start the stopped channel, and sound must come.
    void expectStartable();
    // Checks the sound from a moment on: no break, and the latency of a healthy stream.
    static void expectHealthy(board::RampCheck* sound, board::Ns from);

  private:
    int64_t movedBy(board::Ns at) const;
    int64_t nextPeriodAt(int64_t frames);
};

#define INSTANTIATE_BOTH_DIRECTIONS(Suite)                                                    \
    INSTANTIATE_TEST_SUITE_P(Direction, Suite,                                                \
                             testing::Values(board::kSpeakerDirection, board::kMicDirection), \
                             [](const auto& info) { return std::string(info.param.name); })

}  // namespace uafd
