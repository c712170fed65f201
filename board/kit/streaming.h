// SPDX-License-Identifier: Apache-2.0
// Both directions of a board in their steady state: the host plays, the app speaks, and the
// daemon's streaming threads are known. Must be destroyed before the board. One thread.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "board/kit/board.h"
#include "board/kit/host_player.h"

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

}  // namespace board
