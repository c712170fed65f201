// SPDX-License-Identifier: Apache-2.0
// What an app may do in any walk.

#include <unistd.h>
#include <vector>

#include <sys/stat.h>

#include "board/kit/files.h"
#include "tests/board/walk/walk.h"

namespace uafd {

using namespace board;

void restartApp(Walk& walk) {
    walk.endApp();
    AppOptions options;
    options.chunkBytes = pick<size_t>(walk, {96, 959, 960, 961, 1919, 1920, 1920, 1920, 4096});
    options.jitter = walk.random.below(3) * 4 * kMs;
    options.socket = walk.random.below(8) != 0;
    walk.note("chunks of " + std::to_string(options.chunkBytes) + " bytes" +
              (options.socket ? "" : ", no socket"));
    walk.startApp(options);
}

void killApp(Walk& walk) {
    walk.endApp();
}

void freezeApp(Walk& walk) {
    if (walk.app) {
        walk.app->freeze();
    }
}

void thawApp(Walk& walk) {
    if (walk.app) {
        walk.app->thaw();
    }
}

void slowApp(Walk& walk) {
    if (walk.app) {
        const bool pause = walk.random.below(3) != 0;
        const bool speaking = walk.random.flip();
        walk.note(std::string(pause ? "pauses " : "resumes ") +
                  (speaking ? "speaking" : "listening"));
        speaking ? walk.app->pauseSpeaking(pause) : walk.app->pauseListening(pause);
    }
}

void loseSocket(Walk& /*walk*/) {
    unlink(kSocketRx);
}

void changeFifo(Walk& walk) {
    const char* const fifo = pick(walk, {kFifoRx, kFifoTx});
    const int64_t replacement = walk.random.below(4);
    walk.note(fifo);
    unlink(fifo);
    if (replacement < 2) {
        walk.note("made again");
        mkfifo(fifo, 0666);
    } else if (replacement == 2) {
        walk.note("a file in its place");
        put(fifo, "");
    }
}

void sendMessage(Walk& walk) {
    const uint32_t type = pick<uint32_t>(walk, {3, 5, 7, 7, 7, 4, 0, 8, 0xFFFFFFFF});
    walk.note("type " + std::to_string(type));
    App::send({type, static_cast<uint32_t>(walk.random.below(65536))});
}

// Sends any size but 0: an empty datagram ends the daemon's receiving for good.
void sendOddDatagram(Walk& walk) {
    const size_t size = pick<size_t>(walk, {1, 2, 4, 7, 9, 12, 4096, 65000});
    walk.note(std::to_string(size) + " bytes");
    std::vector<uint32_t> words(1 + size / sizeof(uint32_t));
    words[0] = static_cast<uint32_t>(walk.random.below(9));
    App::sendBytes(words.data(), size);
}

void passTime(Walk& walk) {
    const Ns time = walk.random.below(8000) * kMs;
    walk.note(std::to_string(time / kMs) + " ms");
    sleepFor(time);
}

}  // namespace uafd
