#include "tests/board/support/app_process.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <new>
#include <unistd.h>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "tests/board/support/app.h"

namespace board {

struct AppProcess::Progress {
    std::atomic<int64_t> heardSound{0};
    std::atomic<int64_t> messages{0};
};

AppProcess::AppProcess()
    : progress_(new (mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Progress),
      pid_(fork()) {
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        live();
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
    ::kill(pid_, SIGSTOP);
    waitpid(pid_, nullptr, WUNTRACED);
}

void AppProcess::thaw() {
    ::kill(pid_, SIGCONT);
}

int64_t AppProcess::heardSound() const {
    return progress_->heardSound;
}

int64_t AppProcess::messages() const {
    return progress_->messages;
}

void AppProcess::live() {
    App app;
    app.speak(noise);
    for (;;) {
        sleepFor(5 * kMs);
        const Samples heard = app.takeHeard().left;
        progress_->heardSound +=
            std::count_if(heard.begin(), heard.end(), [](int16_t sample) { return sample != 0; });
        progress_->messages = static_cast<int64_t>(app.messages().size());
    }
}

}  // namespace board
