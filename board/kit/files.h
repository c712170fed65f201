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
    explicit Fd(int fd) : descriptor(fd) {}
    Fd(Fd&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(descriptor, other.descriptor);
        return *this;
    }
    ~Fd();
    // Throws when the file does not open.
    static Fd open(const std::string& path, int flags, mode_t mode = 0644);

    int get() const { return descriptor; }
    bool isOpen() const { return descriptor >= 0; }

  private:
    int descriptor = -1;
};

}  // namespace board
