// SPDX-License-Identifier: Apache-2.0
// An app at work: opens parts of the daemon's, and from then on hands sound and events to a handler
// and takes the handler's blocks, in the beat of the library. One thread, one session at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <uafd_companion.hpp>

namespace uafd {

constexpr double kLeastS = 0.01;
constexpr double kDayS = 86400;
constexpr char kSecondsHelp[] = "end after N seconds (default: at an interrupt)";
constexpr double kTickS = 0.1;

// What a command does. Nothing is the default everywhere, silence for what the host records.
class Handler {
  public:
    virtual ~Handler() = default;
    // `frames` stereo frames that the host played.
    virtual void onSound(const int16_t* /*samples*/, int /*frames*/) {}
    virtual void onEvent(const uafd_event& /*event*/) {}
    // The next block, silent when handed over; asked for again until it was taken.
    virtual void fillBlock(int16_t* /*samples*/) {}
    virtual void onBlockTaken() {}
    // Every kTickS.
    virtual void onTick() {}
    virtual bool isDone() = 0;
};

class Session {
  public:
    // The parts, and the events as well where no other app has them. False, and told on standard
    // error, when that does not work.
    bool open(unsigned parts);
    // These parts alone; returns the library's result.
    int tryOpen(unsigned parts);
    void close() { companion.close(); }
    // Until the handler is done, the time is over (0 has no end), or SIGINT, SIGTERM or SIGHUP
    // comes, which wasInterrupted() then tells. False, and told on standard error, when the library
    // fails.
    bool run(Handler* handler, double seconds = 0);
    static bool wasInterrupted();

    // The last value told; none before.
    std::optional<int> told(uafd_event_type type) const { return lastTold[type]; }
    bool isOn(uafd_event_type type) const { return told(type) == 1; }
    // All states were told; of the streams', where no USB is configured, nothing is.
    bool isAnswered() const {
        return told(UAFD_USB_STATE) == 0 ||
               (told(UAFD_USB_STATE) && told(UAFD_SPEAKER_STATE) && told(UAFD_MIC_STATE));
    }
    // As if none of them had been told.
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
    bool wasReached = false;  // by a message, in a session without events
    int ticksWithoutDaemon = 0;
};

// By CLOCK_MONOTONIC.
int64_t nowNs();

}  // namespace uafd
