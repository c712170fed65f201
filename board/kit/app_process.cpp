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

    std::atomic<bool> speakingPaused;
    std::atomic<bool> listeningPaused{false};
    std::atomic<int64_t> heardSound{0};
    std::atomic<int64_t> heardJumps{0};
    std::atomic<size_t> messages{0};
    Message values[65536]{};
};

AppProcess::AppProcess(const AppOptions& options, const std::function<void()>& prepare)
    : progress_(new (mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Progress(options.speaks)),
      pid_(fork()) {
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        live(options, prepare);
    }
}

AppProcess::~AppProcess() {
    kill();
    munmap(progress_, sizeof(Progress));
}

void AppProcess::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

void AppProcess::freeze() {
    if (!frozen_) {
        ::kill(pid_, SIGSTOP);
        waitpid(pid_, nullptr, WUNTRACED);
        frozen_ = true;
    }
}

void AppProcess::thaw() {
    ::kill(pid_, SIGCONT);
    frozen_ = false;
}

void AppProcess::pauseSpeaking(bool pause) {
    progress_->speakingPaused = pause;
}

void AppProcess::pauseListening(bool pause) {
    progress_->listeningPaused = pause;
}

int64_t AppProcess::heardSound() const {
    return progress_->heardSound;
}

int64_t AppProcess::heardJumps() const {
    return progress_->heardJumps;
}

int64_t AppProcess::messages() const {
    return static_cast<int64_t>(progress_->messages);
}

std::vector<Message> AppProcess::messageValues(size_t from) const {
    const size_t count = progress_->messages;
    return {progress_->values + std::min(from, count), progress_->values + count};
}

void AppProcess::live(AppOptions options, const std::function<void()>& prepare) noexcept {
    if (prepare) {
        prepare();
    }
    App app(options);
    app.speak(noise);
    int16_t last = 0;
    for (;;) {
        app.pauseSpeaking(progress_->speakingPaused);
        app.pauseListening(progress_->listeningPaused);
        sleepFor(5 * kMs);
        const Samples heard = app.takeHeard().left;
        progress_->heardSound +=
            std::count_if(heard.begin(), heard.end(), [](int16_t sample) { return sample != 0; });
        for (const int16_t sample : heard) {
            progress_->heardJumps += sample == ramp(last + 1) ? 0 : 1;
            last = sample;
        }
        for (const Message& message : app.messageValues(progress_->messages)) {
            if (progress_->messages < std::size(progress_->values)) {
                progress_->values[progress_->messages] = message;
                ++progress_->messages;
            }
        }
    }
}

}  // namespace board
