// SPDX-License-Identifier: Apache-2.0
#include "tests/process/daemon.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "cable/cable_mon.h"

namespace uafd::process {

namespace {

constexpr int kPollMs = 2;
// More than a hundred times as long as any condition takes.
constexpr auto kNever = std::chrono::seconds(60);
constexpr size_t kLastLines = 60;
constexpr size_t kPacketBytes = 4096;

void openWire(int (&ends)[2]) {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error(std::string("socketpair: ") + strerror(errno));
    }
}

// Sets every option that matters: a report ends the process at once, with an exit status of its
// own.
void setSanitizers(const std::string& report) {
    const std::string common = "log_path=" + report + ":halt_on_error=1:exitcode=99";
    setenv(
        "ASAN_OPTIONS",
        (common + ":detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1").c_str(),
        1);
    setenv("UBSAN_OPTIONS", (common + ":print_stacktrace=1").c_str(), 1);
    setenv("LSAN_OPTIONS", "exitcode=99", 1);
    // A stopped channel leaves its thread for the next start to join, which is no leak.
    setenv("TSAN_OPTIONS",
           (common + ":report_thread_leaks=0:detect_deadlocks=1:second_deadlock_stack=1").c_str(),
           1);
}

}  // namespace

Root::Root() {
    std::filesystem::create_directories(path("/tmp"));
    put("/proc/asound/card0/id", "rockchiprt5640c\n");
    put("/run/properties/sys.usb.controller", kCableRkController);
    put("/run/properties/sys.usb.config", "uac2,adb");
    setUsbState("CONFIGURED");
    setCable(true);
    setOwnCapture(true);
}

std::string Root::contents(const std::string& name) const {
    std::ifstream file(path(name));
    return {std::istreambuf_iterator<char>(file), {}};
}

void Root::makeFifos() const {
    // An existing FIFO stays.
    mkfifo(path(kFifoRx).c_str(), 0600);
    mkfifo(path(kFifoTx).c_str(), 0600);
}

void Root::removeFifo(const std::string& name) const {
    unlink(path(name).c_str());
}

void Root::setUsbState(const std::string& word) const {
    put(kCableUsbStatePath, word + "\n");
}

void Root::setCable(bool plugged) const {
    put(kCablePlugStatePath, plugged ? "1\n" : "0\n");
}

void Root::setOwnCapture(bool running) const {
    put("/proc/asound/card0/pcm0c/sub0/status",
        running
            ? "state: RUNNING\nowner_pid   : 1\ntrigger_time: 1.0\ntstamp      : 1000.000000001\n"
            : "closed\n");
}

void Root::put(const std::string& name, const std::string& text) const {
    const std::string file = path(name);
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

Daemon::Daemon(const Root& root) : root(root) {
    int control[2], notes[2], uevents[2];
    openWire(control);
    openWire(notes);
    openWire(uevents);
    controlEnd = control[0];
    notesEnd = notes[0];
    ueventsEnd = uevents[0];
    appSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    start(control, notes, uevents);
    close(control[1]);
    close(notes[1]);
    close(uevents[1]);
}

void Daemon::start(const int control[2], const int notes[2], const int uevents[2]) {
    pid = fork();
    if (pid < 0) {
        throw std::runtime_error(std::string("fork: ") + strerror(errno));
    }
    running = true;
    if (pid != 0) {
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(control[1], kControlFd);
    dup2(notes[1], kNotesFd);
    dup2(uevents[1], kUeventFd);
    const int log = ::open(root.path("/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    setSanitizers(root.path("/report"));
    execl(DAEMON_PROGRAM, DAEMON_PROGRAM, root.path().c_str(), nullptr);
    _exit(EXIT_FAILURE);
}

Daemon::~Daemon() {
    if (isRunning()) {
        kill(pid, SIGKILL);
        waitForEnd(0);
    }
    for (const int fd : {controlEnd, notesEnd, ueventsEnd, appSocket}) {
        close(fd);
    }
}

bool Daemon::record(uint32_t type, uint32_t data) {
    std::string bytes(8, '\0');
    memcpy(&bytes[0], &type, sizeof type);
    memcpy(&bytes[4], &data, sizeof data);
    return rawRecord(bytes);
}

bool Daemon::rawRecord(const std::string& bytes) {
    return send(kRecord, bytes);
}

bool Daemon::command(const std::string& text) {
    return send(kCommand, text);
}

bool Daemon::send(char kind, const std::string& bytes) {
    const std::string packet = kind + bytes;
    return ::send(controlEnd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0;
}

void Daemon::uevent(const std::string& text, UeventSender sender) {
    std::string packet(sizeof sender, '\0');
    memcpy(&packet[0], &sender, sizeof sender);
    packet += text;
    ::send(ueventsEnd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void Daemon::datagram(const std::string& bytes) {
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    root.path(kSocketTx).copy(to.sun_path, sizeof to.sun_path - 1);
    sendto(appSocket, bytes.data(), bytes.size(), MSG_DONTWAIT,
           reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

std::vector<std::string> Daemon::takeNotes() {
    std::vector<std::string> taken = std::move(kept);
    kept.clear();
    std::array<char, kPacketBytes> packet;
    for (;;) {
        const ssize_t got = recv(notesEnd, packet.data(), packet.size(), MSG_DONTWAIT);
        if (got <= 0) {
            return taken;
        }
        taken.emplace_back(packet.data(), static_cast<size_t>(got));
    }
}

bool Daemon::settle() {
    const std::string word = "echo " + std::to_string(++echoes);
    if (!waitFor([&] { return command(word); })) {
        return false;
    }
    std::vector<std::string> others;
    const bool settled = waitFor([&] {
        const std::vector<std::string> notes = takeNotes();
        others.insert(others.end(), notes.begin(), notes.end());
        return !others.empty() && std::find(others.begin(), others.end(), word) != others.end();
    });
    kept = std::move(others);
    kept.erase(std::remove(kept.begin(), kept.end(), word), kept.end());
    return settled;
}

bool Daemon::waitFor(const std::function<bool()>& condition) {
    const auto never = std::chrono::steady_clock::now() + kNever;
    while (!condition()) {
        if (!isRunning() || std::chrono::steady_clock::now() > never) {
            return false;
        }
        pollfd ready{notesEnd, POLLIN, 0};
        poll(&ready, 1, kPollMs);
    }
    return true;
}

bool Daemon::isRunning() {
    waitForEnd(WNOHANG);
    return running;
}

void Daemon::waitForEnd(int options) {
    if (running && waitpid(pid, &status, options) == pid) {
        running = false;
    }
}

int Daemon::end() {
    waitFor([this] { return command("end"); });
    return exitStatus();
}

int Daemon::exitStatus() {
    waitFor([this] { return !isRunning(); });
    return !running && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Daemon::descriptors() const {
    return entriesOf("fd");
}

int Daemon::threads() const {
    return entriesOf("task");
}

std::string Daemon::procFolder() const {
    return "/proc/" + std::to_string(pid) + '/';
}

int Daemon::entriesOf(const std::string& folder) const {
    std::error_code ended;
    const std::filesystem::directory_iterator entries(procFolder() + folder, ended);
    return static_cast<int>(std::distance(entries, std::filesystem::directory_iterator()));
}

int Daemon::count(const std::string& text) const {
    std::istringstream log(root.contents("/log"));
    int lines = 0;
    for (std::string line; std::getline(log, line);) {
        lines += line.find(text) != std::string::npos ? 1 : 0;
    }
    return lines;
}

std::string Daemon::report() const {
    std::string reports;
    for (const auto& file : std::filesystem::directory_iterator(root.path())) {
        const std::string name = file.path().filename().string();
        if (name.rfind("report", 0) == 0) {
            reports += root.contents("/" + name);
        }
    }
    return reports;
}

std::string Daemon::state() const {
    std::istringstream log(root.contents("/log"));
    std::deque<std::string> last;
    for (std::string line; std::getline(log, line);) {
        if (line.find("likely a timeout") == std::string::npos) {
            last.push_back(line + '\n');
        }
        if (last.size() > kLastLines) {
            last.pop_front();
        }
    }
    std::string text = std::accumulate(last.begin(), last.end(), std::string());
    std::error_code ended;
    for (const auto& thread : std::filesystem::directory_iterator(procFolder() + "task", ended)) {
        std::string wait;
        std::getline(std::ifstream(thread.path() / "wchan"), wait);
        text += "thread " + thread.path().filename().string() + " in " + wait + '\n';
    }
    return text;
}

}  // namespace uafd::process
