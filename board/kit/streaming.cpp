// SPDX-License-Identifier: Apache-2.0
#include "board/kit/streaming.h"

#include <stdexcept>

namespace board {
namespace {

constexpr Ns kSettling = 3 * kSecond;

}  // namespace

Streaming::Streaming(Board* board) : board(board), player(ramp) {
    board->app->speak(ramp);
    board->host.command("speaker on");
    board->host.command("mic on");
    run(kSettling, [] {});
}

StreamingThreads Streaming::threads() {
    return {threadThatLogged("loopcnt 0, pcmRead #, fifoWrite #"),
            threadThatLogged("loopcnt 0, pcmWrite #"),
            threadThatLogged("buffer loopcnt 0, fifoRead #")};
}

void Streaming::discardSound() {
    board->app->takeHeard();
    board->host.takeRecording();
}

pid_t Streaming::threadThatLogged(const std::string& text) {
    for (const LogLine& line : board->daemon.log()) {
        if (matches(line.text, text)) {
            return line.tid;
        }
    }
    throw std::runtime_error("no thread logged " + text);
}

}  // namespace board
