// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <sys/prctl.h>
#include <sys/wait.h>

#include "bench/board/subject.h"
#include "board/kit/files.h"

namespace bench {
namespace {

constexpr int kPriority = 58;

// In the new process. The opening of a FIFO waits for the app.
void redirect(int descriptor, const std::string& path, int flags) {
    if (path.empty()) {
        return;
    }
    const int fd = open(path.c_str(), flags, 0644);
    if (fd < 0 || dup2(fd, descriptor) < 0) {
        _exit(126);
    }
    close(fd);
}

[[noreturn]] void become(const Command& command, const std::string& complaints, bool realtime) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const sched_param priority{realtime ? kPriority : 0};
    sched_setscheduler(0, realtime ? SCHED_FIFO : SCHED_OTHER, &priority);
    redirect(STDIN_FILENO, command.input, O_RDONLY);
    redirect(STDERR_FILENO, complaints, O_WRONLY | O_CREAT | O_APPEND);
    redirect(STDOUT_FILENO, command.output.empty() ? complaints : command.output,
             O_WRONLY | O_APPEND);
    std::vector<char*> words;
    for (const std::string& word : command.words) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    execv(words[0], words.data());
    _exit(127);
}

}  // namespace

Processes::Processes(const std::string& name, const std::vector<Command>& commands, bool realtime)
    : startedAt(board::now()) {
    std::string complaints = "/out/" + name + ".stderr";
    std::replace(complaints.begin() + 5, complaints.end(), ' ', '-');
    for (const Command& command : commands) {
        const pid_t pid = fork();
        if (pid == 0) {
            become(command, complaints, realtime);
        }
        processIds.push_back(pid);
    }
}

Processes::~Processes() {
    for (const pid_t pid : processIds) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

bool Processes::allRun() const {
    return std::all_of(processIds.begin(), processIds.end(), [](pid_t pid) {
        siginfo_t ended{};
        return waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               ended.si_pid == 0;
    });
}

}  // namespace bench
