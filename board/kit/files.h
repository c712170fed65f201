// SPDX-License-Identifier: Apache-2.0
// Small helpers on files and descriptors. What fails throws std::runtime_error with the reason, so
// that a test ends with it.
#pragma once

#include <string>
#include <utility>

#include <sys/types.h>

namespace board {

// Throws "WHAT: text of errno".
[[noreturn]] void fail(const std::string& what);

// The whole file; empty when there is none (files below /proc come and go).
std::string contents(const std::string& path);
void put(const std::string& path, const std::string& text);
bool exists(const std::string& path);

// A descriptor that closes itself.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Fd();
    // Throws when the file does not open.
    static Fd open(const std::string& path, int flags, mode_t mode = 0644);

    int get() const { return fd_; }
    bool isOpen() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

}  // namespace board
