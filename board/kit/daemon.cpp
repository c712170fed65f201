// SPDX-License-Identifier: Apache-2.0
#include "board/kit/daemon.h"

#include <cctype>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>
#include <utility>

#include <sys/wait.h>

#include "board/kit/files.h"

namespace board {
namespace {

constexpr char kProgram[] = "/bin/uafd";

// What CLOCK_REALTIME is ahead of the board's clock.
Ns realtimeAhead() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time.tv_sec * kSecond + time.tv_nsec - now();
}

// The year is not in the log.
int currentYear() {
    const time_t seconds = time(nullptr);
    tm civil{};
    gmtime_r(&seconds, &civil);
    return civil.tm_year;
}

// "01-31 23:59:59.123  PID  TID L TAG     : text"
bool parse(const std::string& line, LogLine* parsed) {
    tm civil{};
    int ms = 0;
    int pid = 0;
    char tag[32] = "";
    int textAt = 0;
    if (sscanf(line.c_str(), "%d-%d %d:%d:%d.%d %d %d %c %31[^: ] : %n", &civil.tm_mon,
               &civil.tm_mday, &civil.tm_hour, &civil.tm_min, &civil.tm_sec, &ms, &pid,
               &parsed->tid, &parsed->level, tag, &textAt) < 10) {
        return false;
    }
    civil.tm_mon -= 1;
    civil.tm_year = currentYear();
    parsed->at = timegm(&civil) * kSecond + ms * kMs - realtimeAhead();
    parsed->tag = tag;
    // Not by textAt alone: the format's blank would eat the text's own first ones.
    parsed->text = line.substr(line.find(": ", line.find(tag)) + 2);
    return true;
}

bool isNumberPart(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0 || c == '-';
}

bool matchesFrom(const char* text, const char* wanted) {
    for (; *wanted != '\0'; ++wanted) {
        if (*wanted == '*') {
            do {
                if (matchesFrom(text, wanted + 1)) {
                    return true;
                }
            } while (*text++ != '\0');
            return false;
        }
        if (*wanted == '#') {
            const char* const begin = text;
            while (isNumberPart(*text)) {
                ++text;
            }
            if (text == begin) {
                return false;
            }
        } else if (*text++ != *wanted) {
            return false;
        }
    }
    return *text == '\0';
}

}  // namespace

bool matches(const std::string& text, const std::string& wanted) {
    return matchesFrom(text.c_str(), wanted.c_str());
}

std::string LogLine::brief() const {
    return std::string(1, level) + " " + tag + ": " + text;
}

Daemon::Daemon(const std::string& name, DaemonStarter starter)
    : logPath_("/out/" + name + ".log"),
      stdoutPath_("/out/" + name + ".stdout"),
      starter_(std::move(starter)) {
    put(logPath_, "");
    put(stdoutPath_, "");
}

Daemon::~Daemon() {
    stop();
}

void Daemon::start(const std::function<void()>& prepare) {
    if (starter_) {
        pid_ = starter_(logPath_);
        return;
    }
    const Fd log = Fd::open(logPath_, O_WRONLY | O_APPEND);
    const Fd out = Fd::open(stdoutPath_, O_WRONLY | O_APPEND);
    pid_ = fork();
    if (pid_ == 0) {
        signal(SIGPIPE, SIG_DFL);
        dup2(out.get(), STDOUT_FILENO);
        dup2(log.get(), STDERR_FILENO);
        if (prepare) {
            prepare();
        }
        execl(kProgram, "uafd", nullptr);
        _exit(127);
    }
}

void Daemon::stop() {
    if (pid_ > 0 && !starter_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
}

void Daemon::freeze() {
    kill(pid_, SIGSTOP);
    waitpid(pid_, nullptr, WUNTRACED);
}

void Daemon::thaw() {
    kill(pid_, SIGCONT);
}

bool Daemon::isRunning() {
    return pid_ > 0 && (starter_ ? kill(pid_, 0) : waitpid(pid_, nullptr, WNOHANG)) == 0;
}

int Daemon::waitForExit(Ns limit) {
    int status = 0;
    if (!waitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, limit)) {
        return -1;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const std::vector<LogLine>& Daemon::log() {
    std::ifstream file(logPath_);
    file.seekg(logRead_);
    for (std::string line; std::getline(file, line) && !file.eof();) {
        logRead_ += static_cast<std::streamoff>(line.size()) + 1;
        LogLine parsed{};
        if (!parse(line, &parsed)) {
            parsed.text = line;
        }
        lines_.push_back(std::move(parsed));
    }
    return lines_;
}

int Daemon::count(const std::string& text, size_t mark) {
    log();
    int found = 0;
    for (size_t i = mark; i < lines_.size(); ++i) {
        found += matches(lines_[i].text, text) ? 1 : 0;
    }
    return found;
}

bool Daemon::waitForLog(const std::string& text, size_t mark, int times, Ns limit) {
    return waitFor([&] { return count(text, mark) >= times; }, limit);
}

}  // namespace board
