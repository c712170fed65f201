// SPDX-License-Identifier: Apache-2.0
#include "tests/board/usb_host.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace usb_host {

namespace {

constexpr char kCommandPath[] = "/dev/usb_host";
constexpr char kCountersPath[] = "/proc/usb_host";
constexpr char kLogPath[] = "/dev/usb_host_log";
constexpr char kSpeakerPath[] = "/dev/usb_host_speaker";
constexpr char kMicPath[] = "/dev/usb_host_mic";

class Descriptor {
  public:
    Descriptor(const char* path, int flags) : fd_(open(path, flags | O_CLOEXEC)) {}
    ~Descriptor() { close(fd_); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

  private:
    const int fd_;
};

}  // namespace

int64_t nowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

void sleepNs(int64_t ns) {
    const int64_t end = nowNs() + ns;
    const timespec time{end / kNsPerSecond, end % kNsPerSecond};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
    }
}

bool waitFor(const std::function<bool()>& condition, int64_t limitNs) {
    const int64_t end = nowNs() + limitNs;
    while (!condition()) {
        if (nowNs() >= end) {
            return false;
        }
        sleepNs(kNsPerMs);
    }
    return true;
}

int command(const std::string& text) {
    const Descriptor host(kCommandPath, O_WRONLY);
    return write(host.get(), text.data(), text.size()) < 0 ? errno : 0;
}

std::string contents(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return file ? text.str() : "no " + path;
}

int64_t counter(const std::string& key) {
    std::istringstream lines(contents(kCountersPath));
    std::string name;
    for (int64_t value; lines >> name >> value;) {
        if (name == key) {
            return value;
        }
    }
    return -1;
}

void reset() {
    for (const char* text :
         {"fault clear", "speaker off", "mic off", "stall speaker 0", "stall mic 0", "ppb 0",
          "volume speaker 0", "volume mic 0", "mute speaker 0", "mute mic 0", "flush speaker",
          "flush mic", "unbind", "bind", "plug"}) {
        command(text);
    }
}

EventLog::EventLog() : fd_(open(kLogPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    lines();
}

EventLog::~EventLog() {
    close(fd_);
}

std::vector<EventLog::Line> EventLog::lines() {
    std::string text;
    char part[4096];
    for (ssize_t got; (got = read(fd_, part, sizeof part)) > 0;) {
        text.append(part, static_cast<size_t>(got));
    }
    std::vector<Line> lines;
    std::istringstream stream(text);
    Line line{};
    while (stream >> line.ns && stream.ignore(1) && std::getline(stream, line.text)) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> EventLog::texts() {
    std::vector<std::string> texts;
    for (const Line& line : lines()) {
        if (line.text.rfind("host ", 0) != 0) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

size_t play(const std::vector<int16_t>& frames) {
    const Descriptor speaker(kSpeakerPath, O_WRONLY | O_NONBLOCK);
    const ssize_t written = write(speaker.get(), frames.data(), frames.size() * sizeof(frames[0]));
    return written < 0 ? 0 : static_cast<size_t>(written) / sizeof(frames[0]);
}

std::vector<int16_t> recorded() {
    const Descriptor mic(kMicPath, O_RDONLY | O_NONBLOCK);
    std::vector<int16_t> all;
    std::vector<int16_t> part(65536);
    for (ssize_t got; (got = read(mic.get(), part.data(), part.size() * sizeof(part[0]))) > 0;) {
        all.insert(all.end(), part.begin(),
                   part.begin() + got / static_cast<ssize_t>(sizeof(part[0])));
    }
    return all;
}

}  // namespace usb_host
