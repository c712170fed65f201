// SPDX-License-Identifier: Apache-2.0
#include "board/kit/app_process.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <iterator>
#include <new>
#include <unistd.h>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace board {

struct AppProcess::Progress {
    explicit Progress(bool speaks) : speakingPaused(!speaks) {}

    std::atomic<bool> began{false};
    std::atomic<bool> speakingPaused;
    std::atomic<bool> listeningPaused{false};
    std::atomic<int64_t> heardSound{0};
    std::atomic<int64_t> heardJumps{0};
    std::atomic<size_t> messages{0};
    Message values[65536]{};
};

AppProcess::AppProcess(const AppOptions& options, const std::function<void()>& prepare)
    : progress(new (mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Progress(options.speaks)),
      pid(fork()) {
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // Not the parent's streams: they would be open for as long as the app lives.
        close_range(STDERR_FILENO + 1, ~0U, 0);
        progress->began = true;
        live(options, prepare);
    }
    // One that is frozen before would keep them.
    waitFor([this] { return progress->began.load(); });
}

AppProcess::~AppProcess() {
    kill();
    munmap(progress, sizeof(Progress));
}

void AppProcess::kill() {
    if (pid > 0) {
        ::kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
}

void AppProcess::freeze() {
    if (!frozen) {
        ::kill(pid, SIGSTOP);
        waitpid(pid, nullptr, WUNTRACED);
        frozen = true;
    }
}

void AppProcess::thaw() {
    ::kill(pid, SIGCONT);
    frozen = false;
}

void AppProcess::pauseSpeaking(bool pause) {
    progress->speakingPaused = pause;
}

void AppProcess::pauseListening(bool pause) {
    progress->listeningPaused = pause;
}

int64_t AppProcess::heardSound() const {
    return progress->heardSound;
}

int64_t AppProcess::heardJumps() const {
    return progress->heardJumps;
}

int64_t AppProcess::messages() const {
    return static_cast<int64_t>(progress->messages);
}

std::vector<Message> AppProcess::messageValues(size_t from) const {
    const size_t count = progress->messages;
    return {progress->values + std::min(from, count), progress->values + count};
}

void AppProcess::live(AppOptions options, const std::function<void()>& prepare) noexcept {
    if (prepare) {
        prepare();
    }
    App app(options);
    app.speak(noise);
    int16_t last = 0;
    for (;;) {
        app.pauseSpeaking(progress->speakingPaused);
        app.pauseListening(progress->listeningPaused);
        sleepFor(5 * kMs);
        const Samples heard = app.takeHeard().left;
        progress->heardSound +=
            std::count_if(heard.begin(), heard.end(), [](int16_t sample) { return sample != 0; });
        for (const int16_t sample : heard) {
            progress->heardJumps += sample == ramp(last + 1) ? 0 : 1;
            last = sample;
        }
        for (const Message& message : app.messageValues(progress->messages)) {
            if (progress->messages < std::size(progress->values)) {
                progress->values[progress->messages] = message;
                ++progress->messages;
            }
        }
    }
}

}  // namespace board
