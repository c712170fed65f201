// SPDX-License-Identifier: Apache-2.0
// Both directions of a board in their steady state: the host plays, the app speaks, and the
// daemon's streaming threads are known. Must be destroyed before the board. One thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

#include "board/kit/board.h"
#include "board/kit/perf_event.h"

namespace board {

// The daemon's streaming threads.
struct StreamingThreads {
    pid_t sink;    // the speaker's worker: PCM to FIFO
    pid_t source;  // the microphone's worker: frame buffer to PCM
    pid_t buffer;  // the microphone's buffer thread: FIFO to frame buffer
};

class Streaming {
  public:
    // The board must have been started. Returns when the irregularities of the start are over.
    explicit Streaming(Board* board);

    StreamingThreads threads();
    // Lets the board stream for a while; `look` is called every tenth of a second.
    template <typename Look>
    void run(Ns time, Look&& look) {
        for (const Ns end = now() + time; now() < end;) {
            sleepFor(kSecond / 10);
            discardSound();
            look();
        }
    }

  private:
    void discardSound();
    pid_t threadThatLogged(const std::string& text);

    Board* const board;
    const HostPlayer player;
};

// How soon the daemon handles a period while both directions stream: from its end in the gadget
// driver to its bytes in the app's FIFO, and from room for it in the PCM to its samples there.
class AnswerTimes {
  public:
    struct Waits {
        std::vector<Ns> times;   // from each period's end to its answer
        int64_t unasked = 0;     // answers to no period
        int64_t unanswered = 0;  // periods after the last answer
    };

    // Records from here on, for so long. Memory that grew meanwhile, and was moved, would hold the
    // only processor in the kernel for a millisecond.
    AnswerTimes(const StreamingThreads& threads, Ns longest);

    // Takes what was recorded; at least every second.
    void look();

    Waits speaker() const;
    Waits mic() const;
    // When each period was in the FIFO.
    const std::vector<Ns>& inFifoAt() const { return toFifoAt; }
    // How many of the speaker's periods ended when one of the microphone's did.
    int64_t endedTogether() const;

  private:
    PerfEvent toFifo;
    PerfEvent ioctlEnds;  // from before the first write, which would else get the next one's end
    PerfEvent toPcm;
    std::vector<PerfEvent> periodEnds;  // on each processor
    std::vector<Ns> toFifoAt;
    std::vector<Ns> toPcmAt;
    std::vector<Ns> ioctlEndAt;
    std::vector<Ns> speakerAt;
    std::vector<Ns> micAt;
};

}  // namespace board
