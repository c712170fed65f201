// SPDX-License-Identifier: Apache-2.0
#include "companion/tool/terminal.h"

#include <csignal>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <sys/ioctl.h>
#include <sys/signalfd.h>

namespace uafd {
namespace {

constexpr char kEnter[] = "\033[?1049h\033[?25l\033[?7l";  // another screen, no cursor, no wrapping
constexpr char kLeave[] = "\033[?7h\033[?25h\033[?1049l";
constexpr char kTop[] = "\033[H";
constexpr char kEraseLine[] = "\033[K";
constexpr int kTaken[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH};
constexpr int kCrashes[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

termios before;
bool hasBefore = false;

void put(const char* text, size_t size) {
    // A terminal that is gone ends the program by SIGHUP.
    for (ssize_t done = 0; size > 0; text += done, size -= static_cast<size_t>(done)) {
        done = write(STDOUT_FILENO, text, size);
        if (done <= 0) {
            return;
        }
    }
}

// Everything here may be called by a signal's handler.
void leave() {
    put(kLeave, sizeof kLeave - 1);
    if (hasBefore) {
        tcsetattr(STDIN_FILENO, TCSANOW, &before);
    }
}

// The signal is the default one again, so it ends the process as soon as the handler has returned.
void crash(int signal) {
    leave();
    raise(signal);
}

}  // namespace

Terminal::Terminal() : hasKeys(isatty(STDIN_FILENO) != 0) {
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signal : kTaken) {
        sigaddset(&taken, signal);
    }
    sigprocmask(SIG_BLOCK, &taken, nullptr);
    signals = signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
    struct sigaction action {};
    action.sa_handler = crash;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : kCrashes) {
        sigaction(signal, &action, nullptr);
    }
    hasBefore = hasKeys && tcgetattr(STDIN_FILENO, &before) == 0;
    enter();
}

Terminal::~Terminal() {
    leave();
    close(signals);
}

void Terminal::enter() {
    if (hasBefore) {
        termios keys = before;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &keys);
    }
    put(kEnter, sizeof kEnter - 1);
    findSize();
}

void Terminal::findSize() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0) {
        columnCount = size.ws_col;
        rowCount = size.ws_row;
    }
}

Terminal::Input Terminal::wait(int timeoutMs) {
    pollfd sources[] = {{signals, POLLIN, 0}, {hasKeys ? STDIN_FILENO : -1, POLLIN, 0}};
    poll(sources, 2, timeoutMs);
    if (sources[0].revents != 0) {
        return takeSignal();
    }
    return sources[1].revents != 0 ? takeKey() : kNothing;
}

Terminal::Input Terminal::takeSignal() {
    signalfd_siginfo signal{};
    if (read(signals, &signal, sizeof signal) != static_cast<ssize_t>(sizeof signal)) {
        return kNothing;
    }
    switch (signal.ssi_signo) {
        case SIGWINCH:
            findSize();
            return kRedraw;
        case SIGTSTP:
            leave();
            kill(getpid(), SIGSTOP);
            enter();
            return kRedraw;
        default:
            return kQuit;
    }
}

Terminal::Input Terminal::takeKey() {
    char key = 0;
    if (read(STDIN_FILENO, &key, 1) != 1) {
        hasKeys = false;
        return kNothing;
    }
    return key == 'q' || key == 'Q' ? kQuit : kRedraw;
}

void Terminal::show(const std::vector<std::string>& lines) const {
    std::string screen = kTop;
    for (size_t row = 0; row < rowCount; ++row) {
        // Erased before it is written: after a full line the cursor is still on its last letter.
        screen += (row == 0 ? "" : "\r\n") + std::string(kEraseLine);
        screen += row < lines.size() ? lines[row] : "";
    }
    put(screen.data(), screen.size());
}

}  // namespace uafd
