// SPDX-License-Identifier: Apache-2.0
// A program as a child process of the test, with its standard output and error in files. One
// thread.
#pragma once

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <sys/prctl.h>
#include <sys/wait.h>

#include "tests/support/temp_dir.h"

namespace uafd {

class ChildProcess {
  public:
    // `prepare` runs in the new process just before the program.
    explicit ChildProcess(std::vector<std::string> command,
                          const std::function<void()>& prepare = {})
        : pid(fork()) {
        if (pid == 0) {
            run(std::move(command), prepare);
        }
    }
    // Kills the process if it still runs.
    ~ChildProcess() {
        if (pid > 0) {
            send(SIGKILL);
            wait();
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void send(int signal) const { kill(pid, signal); }
    // Waits for the end. Returns the exit status, or 128 plus the signal that ended the process.
    int wait() {
        int status = 0;
        waitpid(std::exchange(pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    // What it has printed so far.
    std::string output() const { return contents("out"); }
    std::string errors() const { return contents("err"); }

  private:
    [[noreturn]] void run(std::vector<std::string> command,
                          const std::function<void()>& prepare) const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // so that a test that dies leaves nothing behind
        std::vector<char*> words;
        for (std::string& word : command) {
            words.push_back(word.data());
        }
        words.push_back(nullptr);
        redirect(STDOUT_FILENO, "out");
        redirect(STDERR_FILENO, "err");
        if (prepare) {
            prepare();
        }
        execv(words[0], words.data());
        _exit(127);
    }
    void redirect(int fd, const std::string& name) const {
        dup2(open((files.path() + "/" + name).c_str(), O_WRONLY | O_CREAT, 0600), fd);
    }
    std::string contents(const std::string& name) const {
        std::stringstream text;
        text << std::ifstream(files.path() + "/" + name).rdbuf();
        return text.str();
    }

    const TempDir files;
    pid_t pid;
};

}  // namespace uafd
