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
    // Of the records queued from now on.
    explicit RecordWatch(Host* host);

    // Queues a record that changes nothing: it is read when what came before has been handled to
    // its end. It is the microphone's mute, which the app is told of.
    void probe() { host->tryCommand("record 7 0"); }
    // Takes in what has happened; at least once in 16000 events of the driver, else it throws.
    void look();

    // The longest so far: that a record waited from its queueing to its reading,
    const Delay& wait() const { return longestWait; }
    // that one waited without the loop's reading another or failing to,
    const Delay& absence() const { return longestAbsence; }
    // that the playback stayed open after the reading of an off, or of an unbind behind it, the
    // card's removal making a pass longer; no on having come since.
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
    std::optional<Delay> micOff;  // a stop that is to come
    bool playbackOpen = false;
    Delay longestWait;
    Delay longestAbsence;
    Delay longestMicStop;
    int64_t recordsRead = 0;
};

}  // namespace board
