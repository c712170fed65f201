// SPDX-License-Identifier: Apache-2.0
#include "board/kit/daemon.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <unistd.h>
#include <utility>

#include <sys/wait.h>

#include "board/kit/files.h"

namespace board {
namespace {

constexpr char kProgram[] = "/bin/uafd";

// As for matches().
constexpr char kSoundLibrary[] = "ALSA lib *";  // its own complaints, beside the log
constexpr const char* kKnown[] = {
#include "known_lines.inc"
};

// How far CLOCK_REALTIME is ahead of the board's clock.
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
    // Not by textAt alone: the format's blank would skip the text's own leading blanks.
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

bool isKnown(const LogLine& line) {
    if (line.tag.empty()) {
        return matches(line.text, kSoundLibrary);
    }
    const std::string brief = line.brief();
    return std::any_of(std::begin(kKnown), std::end(kKnown),
                       [&](const char* known) { return matches(brief, known); });
}

std::string LogLine::brief() const {
    return std::string(1, level) + " " + tag + ": " + text;
}

Daemon::Daemon(const std::string& name, DaemonStarter starter)
    : logPath("/out/" + name + ".log"),
      stdoutPath("/out/" + name + ".stdout"),
      starter(std::move(starter)) {
    put(logPath, "");
    put(stdoutPath, "");
}

Daemon::~Daemon() {
    stop();
}

void Daemon::start(const std::function<void()>& prepare) {
    if (starter) {
        processId = starter(logPath);
        return;
    }
    const Fd log = Fd::open(logPath, O_WRONLY | O_APPEND);
    const Fd out = Fd::open(stdoutPath, O_WRONLY | O_APPEND);
    processId = fork();
    if (processId == 0) {
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
    if (processId > 0 && !starter) {
        kill(processId, SIGKILL);
        waitpid(processId, nullptr, 0);
    }
    processId = -1;
}

void Daemon::freeze() {
    kill(processId, SIGSTOP);
    waitpid(processId, nullptr, WUNTRACED);
}

void Daemon::thaw() {
    kill(processId, SIGCONT);
}

bool Daemon::isRunning() {
    return processId > 0 &&
           (starter ? kill(processId, 0) : waitpid(processId, nullptr, WNOHANG)) == 0;
}

int Daemon::waitForExit(Ns limit) {
    int status = 0;
    if (!waitFor([&] { return waitpid(processId, &status, WNOHANG) == processId; }, limit)) {
        return -1;
    }
    processId = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const std::vector<LogLine>& Daemon::log() {
    std::ifstream file(logPath);
    file.seekg(logRead);
    for (std::string line; std::getline(file, line) && !file.eof();) {
        logRead += static_cast<std::streamoff>(line.size()) + 1;
        LogLine parsed{};
        if (!parse(line, &parsed)) {
            parsed.text = line;
        }
        lines.push_back(std::move(parsed));
    }
    return lines;
}

int Daemon::count(const std::string& text, size_t mark) {
    log();
    int found = 0;
    for (size_t i = mark; i < lines.size(); ++i) {
        found += matches(lines[i].text, text) ? 1 : 0;
    }
    return found;
}

bool Daemon::waitForLog(const std::string& text, size_t mark, int times, Ns limit) {
    return waitFor([&] { return count(text, mark) >= times; }, limit);
}

}  // namespace board
