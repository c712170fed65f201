// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_fifo.h"

#include <cerrno>
#include <fcntl.h>

#include "tests/support/fake_sys.h"

namespace uafd {

void FakeFifo::install(size_t blockBytes) {
    fake_sys::Hooks& hooks = fake_sys::hooks();
    hooks.open = [this](const char* path, int flags) {
        journal.push_back("open " + std::string(path) + ' ' + std::to_string(flags));
        errno = ENOENT;
        return openResult;
    };
    hooks.read = [this, blockBytes](int fd, void* data, size_t bytes) {
        EXPECT_EQ(openResult, fd);
        EXPECT_EQ(blockBytes, bytes);
        return onRead ? onRead(static_cast<int16_t*>(data), bytes) : static_cast<ssize_t>(bytes);
    };
    hooks.write = [this, blockBytes](int fd, const void* data, size_t bytes) {
        EXPECT_EQ(openResult, fd);
        EXPECT_EQ(blockBytes, bytes);
        const auto* const samples = static_cast<const int16_t*>(data);
        return onWrite ? onWrite(samples, bytes) : static_cast<ssize_t>(bytes);
    };
    hooks.close = [this](int fd) {
        journal.push_back("close " + std::to_string(fd));
        return 0;
    };
    hooks.fcntl = [this](int fd, int command, long argument) {
        EXPECT_EQ(openResult, fd);
        journal.push_back(command == F_SETPIPE_SZ ? "set pipe " + std::to_string(argument)
                                                  : "get pipe");
        return command == F_GETPIPE_SZ ? kGrantedPipeBytes : -1;
    };
}

}  // namespace uafd
