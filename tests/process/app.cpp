// SPDX-License-Identifier: Apache-2.0
#include "tests/process/app.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <random>
#include <string>
#include <unistd.h>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace uafd::process {

namespace {

constexpr size_t kBlockSamples = 960;  // 10 ms, stereo
constexpr long kBlockNs = 10000000 / kSpeed;
constexpr int kMessageEvery = 16;  // blocks, on average
constexpr int kVerySlow = 8;
constexpr int kPaceBlocks = 128;  // how long a pace lasts, on average

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

void sleepBlock() {
    const timespec block{0, kBlockNs};
    nanosleep(&block, nullptr);
}

}  // namespace

// One life of the app, in its own process.
class App::Life {
  public:
    Life(const Root& root, Seen& seen, uint32_t life) : root(root), seen(seen), random(life) {
        signal(SIGPIPE, SIG_IGN);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        messageSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
        const sockaddr_un own = addressOf(root.path(kSocketRx));
        unlink(own.sun_path);
        bind(messageSocket, reinterpret_cast<const sockaddr*>(&own), sizeof own);
        seen.listening = life;
    }

    [[noreturn]] void live() {
        for (;;) {
            if (!seen.paused) {
                hear();
                say();
                receive();
                if (random() % kMessageEvery == 0) {
                    ask();
                }
            }
            keepPace();
        }
    }

  private:
    // For a while the app keeps up with the daemon; for a while it is so slow that it starves it.
    void keepPace() {
        if (random() % kPaceBlocks == 0) {
            slowness = 1 + static_cast<int>(random() % 4);
        }
        for (int left = seen.slow ? kVerySlow : slowness; left > 0; --left) {
            sleepBlock();
        }
    }

    void hear() {
        if (rx < 0) {
            rx = open(root.path(kFifoRx).c_str(), O_RDONLY | O_NONBLOCK);
        }
        std::array<int16_t, 2048> samples;
        const ssize_t got = rx < 0 ? 0 : read(rx, samples.data(), sizeof samples);
        if (got <= 0) {
            return;
        }
        seen.heardBytes += static_cast<uint64_t>(got);
        for (size_t i = 0; i + 1 < static_cast<size_t>(got) / sizeof(int16_t); i += 2) {
            seen.tornFrames += samples[i] != samples[i + 1] ? 1 : 0;
        }
    }

    void say() {
        if (tx < 0) {
            tx = open(root.path(kFifoTx).c_str(), O_WRONLY | O_NONBLOCK);
        }
        std::array<int16_t, kBlockSamples> block;
        block.fill(static_cast<int16_t>(random()));
        const ssize_t put = tx < 0 ? 0 : write(tx, block.data(), sizeof block);
        if (put > 0) {
            seen.saidBytes += static_cast<uint64_t>(put);
        } else if (put < 0 && errno == EPIPE) {
            close(tx);
            tx = -1;
        }
    }

    void receive() {
        uint32_t message[2];
        while (recv(messageSocket, message, sizeof message, 0) == sizeof message) {
            seen.last[message[0] & 7] = message[1];
            ++seen.messages;
        }
    }

    // Sends a datagram of any type and size but an empty one, after which the daemon stops
    // receiving.
    void ask() {
        constexpr uint32_t types[] = {7, 7, 3, 5, 3, 5, 0, 4, 99};
        constexpr size_t sizes[] = {8, 8, 8, 8, 8, 8, 1, 4, 7, 12};
        const uint32_t message[3] = {types[random() % std::size(types)],
                                     static_cast<uint32_t>(random()), 0};
        const sockaddr_un to = addressOf(root.path(kSocketTx));
        sendto(messageSocket, message, sizes[random() % std::size(sizes)], 0,
               reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }

    const Root& root;
    Seen& seen;
    std::minstd_rand random;
    int messageSocket = -1;
    int rx = -1;
    int tx = -1;
    int slowness = 1;
};

App::App(const Root& root)
    : root(root),
      seen(new (mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                     0)) Seen) {}

App::~App() {
    kill();
    munmap(seen, sizeof *seen);
}

void App::start() {
    if (isRunning()) {
        return;
    }
    ++lives;
    pid = fork();
    if (pid == 0) {
        Life(root, *seen, lives).live();
    }
}

void App::kill() {
    if (isRunning()) {
        ::kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
        ++deathCount;
    }
}

void App::waitUntilListening() const {
    while (isRunning() && seen->listening != lives) {
        sleepBlock();
    }
}

void App::pause(bool paused) {
    seen->paused = paused;
}

void App::slowDown() {
    seen->slow = true;
}

}  // namespace uafd::process
