// SPDX-License-Identifier: Apache-2.0
// A running app: opens parts of the library, passes sound and events to a handler, and writes the
// handler's blocks when the library says that they are due. One thread, one session at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <uafd_companion.hpp>

namespace uafd {

constexpr double kLeastS = 0.01;
constexpr double kDayS = 86400;
constexpr char kSecondsHelp[] = "end after N seconds (default: when interrupted)";
constexpr double kTickS = 0.1;

// What a command does. By default the functions do nothing, and the host records silence.
class Handler {
  public:
    virtual ~Handler() = default;
    // `frames` stereo frames that the host played.
    virtual void onSound(const int16_t* /*samples*/, int /*frames*/) {}
    virtual void onEvent(const uafd_event& /*event*/) {}
    // Fills the next block, which is silent before; called again until a block was accepted.
    virtual void fillBlock(int16_t* /*samples*/) {}
    virtual void onBlockTaken() {}
    // Called every kTickS.
    virtual void onTick() {}
    virtual bool isDone() = 0;
};

class Session {
  public:
    // Opens the parts, and the events too unless another app has them. False, with a message on
    // standard error, on failure.
    bool open(unsigned parts);
    // Opens only these parts; returns the library's result.
    int tryOpen(unsigned parts);
    void close() { companion.close(); }
    // Runs until the handler is done, the time is over (0: no limit), or SIGINT, SIGTERM or SIGHUP
    // arrives; wasInterrupted() is true after a signal. False, with a message on standard error,
    // when the library fails.
    bool run(Handler* handler, double seconds = 0);
    static bool wasInterrupted();

    // The last value reported, if any.
    std::optional<int> told(uafd_event_type type) const { return lastTold[type]; }
    bool isOn(uafd_event_type type) const { return told(type) == 1; }
    // Whether all states were reported; without USB the streams' states are not reported.
    bool isAnswered() const {
        return told(UAFD_USB_STATE) == 0 ||
               (told(UAFD_USB_STATE) && told(UAFD_SPEAKER_STATE) && told(UAFD_MIC_STATE));
    }
    // Forgets all reported states.
    void forgetStates();

    uafd::Companion companion;

  private:
    void step(Handler* handler, int ready);
    void takeSound(Handler* handler);
    void takeEvents(Handler* handler);
    void giveBlock(Handler* handler);
    bool findDaemon();
    void waitForDaemon();

    unsigned openParts = 0;
    std::optional<int> lastTold[UAFD_DAEMON_STATE + 1];
    bool wasReached = false;  // a message has reached the daemon, in a session without events
    int ticksWithoutDaemon = 0;
};

// The time of CLOCK_MONOTONIC.
int64_t nowNs();
// From now until then, in milliseconds rounded up; 0 when it is over.
int msUntil(int64_t dueNs);
// The date and time with milliseconds: UTC in the form of ISO 8601, or local.
std::string timeText(bool isUtc);

}  // namespace uafd
