// SPDX-License-Identifier: Apache-2.0
#include "board/kit/files.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
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

}  // namespace board
