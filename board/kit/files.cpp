// SPDX-License-Identifier: Apache-2.0
#include "board/kit/files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace board {

void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

std::string contents(const std::string& path) {
    std::string text;
    const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char block[4096];
    for (ssize_t got = 0; (got = read(file.get(), block, sizeof block)) > 0;) {
        text.append(block, static_cast<size_t>(got));
    }
    return text;
}

void put(const std::string& path, const std::string& text) {
    const Fd fd = Fd::open(path, O_WRONLY | O_CREAT | O_TRUNC);
    if (write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        fail("writing " + path);
    }
}

std::string firstLineOf(const std::string& path) {
    const std::string text = contents(path);
    return text.substr(0, text.find('\n'));
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

Fd::~Fd() {
    if (descriptor >= 0) {
        close(descriptor);
    }
}

Fd Fd::open(const std::string& path, int flags, mode_t mode) {
    Fd fd(::open(path.c_str(), flags | O_CLOEXEC, mode));
    if (!fd.isOpen()) {
        fail("opening " + path);
    }
    return fd;
}

ModuleControl::ModuleControl(const std::string& device, std::string countersPath)
    : control(Fd::open(device, O_WRONLY)), countersPath(std::move(countersPath)) {}

int ModuleControl::tryCommand(const std::string& text) {
    const ssize_t written = write(control.get(), text.data(), text.size());
    return written < 0 ? errno : 0;
}

void ModuleControl::command(const std::string& text) {
    const int error = tryCommand(text);
    if (error != 0) {
        errno = error;
        fail("command \"" + text + "\"");
    }
}

std::map<std::string, int64_t> ModuleControl::counters() const {
    std::map<std::string, int64_t> values;
    std::istringstream lines(contents(countersPath));
    std::string key;
    for (int64_t value = 0; lines >> key >> value;) {
        values[key] = value;
    }
    return values;
}

// Reads only the counter in question, because tests ask every millisecond.
int64_t ModuleControl::counter(const std::string& key) const {
    const std::string lines = "\n" + contents(countersPath);
    const size_t at = lines.find("\n" + key + " ");
    if (at == std::string::npos) {
        throw std::runtime_error(countersPath + " has no " + key);
    }
    return std::stoll(lines.substr(at + key.size() + 2));
}

}  // namespace board
