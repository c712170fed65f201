// SPDX-License-Identifier: Apache-2.0
// Stands in for the FIFO that a channel shares with the app. Calls appear in a journal as
// "open PATH FLAGS", "set pipe BYTES", "get pipe" and "close FD"; reads and writes do not.
#pragma once

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/fake_sys.h"

namespace uafd {

class FakeFifo {
  public:
    explicit FakeFifo(std::vector<std::string>& journal) : journal(journal) {}

    // Installs the hooks; *this must outlive the calls. Every read and write must be of a whole
    // block.
    void install(size_t blockBytes) {
        fake_sys::Hooks& hooks = fake_sys::hooks();
        hooks.open = [this](const char* path, int flags) {
            journal.push_back("open " + std::string(path) + ' ' + std::to_string(flags));
            errno = ENOENT;
            return openResult;
        };
        hooks.read = [this, blockBytes](int fd, void* data, size_t bytes) {
            EXPECT_EQ(openResult, fd);
            EXPECT_EQ(blockBytes, bytes);
            return onRead(static_cast<int16_t*>(data), bytes);
        };
        hooks.write = [this, blockBytes](int fd, const void* data, size_t bytes) {
            EXPECT_EQ(openResult, fd);
            EXPECT_EQ(blockBytes, bytes);
            return onWrite(static_cast<const int16_t*>(data), bytes);
        };
        hooks.close = [this](int fd) {
            journal.push_back("close " + std::to_string(fd));
            return 0;
        };
        hooks.fcntl = [this](int fd, int command, long argument) {
            EXPECT_EQ(openResult, fd);
            journal.push_back(command == F_SETPIPE_SZ ? "set pipe " + std::to_string(argument)
                                                      : "get pipe");
            return command == F_GETPIPE_SZ ? 4096 : -1;
        };
    }

    int openResult = 77;  // -1 fails with ENOENT
    // The results of the app's reads and writes; by default whole blocks.
    std::function<ssize_t(int16_t* samples, size_t bytes)> onRead = whole;
    std::function<ssize_t(const int16_t* samples, size_t bytes)> onWrite = whole;

  private:
    static ssize_t whole(const int16_t*, size_t bytes) { return static_cast<ssize_t>(bytes); }

    std::vector<std::string>& journal;
};

}  // namespace uafd
