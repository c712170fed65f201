// SPDX-License-Identifier: Apache-2.0
// How promptly the daemon handles what the host does, by the gadget driver's own events: how long
// each record of the control device waits to be read, how long the event loop stays away from the
// device meanwhile, and how soon after its off the microphone's playback is closed. One thread.
#pragma once

#include <deque>
#include <optional>
#include <string>

#include "board/kit/clock.h"
#include "board/kit/host.h"

namespace board {

// How long something took, or has taken so far.
struct Delay {
    Ns time = 0;
    Ns since = 0;
    std::string what;
    // "12.345 ms, type=3 data=0x00000000 at 2.500 s"
    std::string text() const;
};

class RecordWatch {
  public:
    // Watches the records queued from now on.
    explicit RecordWatch(Host* host);

    // Queues a record that changes nothing (the microphone's mute, which is sent to the app). It is
    // read when all earlier records have been handled.
    void probe() { host->tryCommand("record 7 0"); }
    // Takes the new events. Throws when there are more than 16000 since the last call.
    void look();

    // The longest time so far that a record waited to be read.
    const Delay& wait() const { return longestWait; }
    // The longest time so far that a record waited while the loop did not try to read any.
    const Delay& absence() const { return longestAbsence; }
    // The longest time so far that the playback stayed open after an off was read, without an on
    // since; or after an unbind that came later, because the card's removal makes a pass longer.
    const Delay& micStop() const { return longestMicStop; }
    // Records read.
    int64_t read() const { return recordsRead; }

  private:
    void see(const HostEvent& event);
    void seeQueued(const HostEvent& event);
    void seeRead(const HostEvent& event);
    void seeWish(const Delay& record);
    void noteWaiting(Ns until);

    Host* const host;
    size_t seenEvents = 0;  // events
    std::deque<Delay> waiting;
    Ns lastRead = 0;
    std::optional<Delay> micOff;  // a stop that is still to come
    bool playbackOpen = false;
    Delay longestWait;
    Delay longestAbsence;
    Delay longestMicStop;
    int64_t recordsRead = 0;
};

}  // namespace board
