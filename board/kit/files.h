// SPDX-License-Identifier: Apache-2.0
// Small helpers on files and descriptors. What fails throws std::runtime_error with the reason, so
// that a test ends with it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include <sys/types.h>

namespace board {

// Throws "WHAT: text of errno".
[[noreturn]] void fail(const std::string& what);

// The whole file; empty when there is none (files below /proc come and go).
std::string contents(const std::string& path);
void put(const std::string& path, const std::string& text);
std::string firstLineOf(const std::string& path);
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

// A kernel module of the board: a device that takes commands, and a file of counters, "KEY VALUE"
// in each line. One thread at a time.
class ModuleControl {
  public:
    // Throws when the module is not loaded, and keeps it from being unloaded.
    ModuleControl(const std::string& device, std::string countersPath);

    // One command; the second form returns the errno that refused it, or 0.
    void command(const std::string& text);
    int tryCommand(const std::string& text);

    std::map<std::string, int64_t> counters() const;
    int64_t counter(const std::string& key) const;

  private:
    Fd control;
    std::string countersPath;
};

}  // namespace board
