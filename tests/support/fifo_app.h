// SPDX-License-Identifier: Apache-2.0
// The companion app's two ends of the FIFOs, each with a thread that never blocks: it reopens its
// end whenever the daemon's end has gone, until it is destroyed.
#pragma once

#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>

namespace uafd {

// One end; `transfer` moves some bytes and returns the result of its read or write.
class FifoApp {
  public:
    FifoApp(std::string fifoPath, int direction, std::function<ssize_t(int)> transfer)
        : path(std::move(fifoPath)),
          flags(direction | O_NONBLOCK),
          move(std::move(transfer)),
          thread([this] { run(); }) {}
    ~FifoApp() {
        done = true;
        thread.join();
    }
    FifoApp(const FifoApp&) = delete;
    FifoApp& operator=(const FifoApp&) = delete;

    bool isOpen() const { return opened; }

  private:
    void run() {
        int fd = -1;
        while (!done) {
            if (fd < 0) {
                fd = open(path.c_str(), flags);
                opened = fd >= 0;
            } else if (move(fd) < 0 && errno != EAGAIN) {
                close(fd);
                fd = -1;
            }
            std::this_thread::yield();
        }
        if (fd >= 0) {
            close(fd);
        }
    }

    const std::string path;
    const int flags;
    const std::function<ssize_t(int)> move;
    std::atomic<bool> done{false};
    std::atomic<bool> opened{false};
    std::thread thread;
};

// Writes blocks of 10 ms whose left samples all have one value; the pipe takes a block whole.
class AppWriter : public FifoApp {
  public:
    AppWriter(const std::string& path, int16_t leftValue)
        : FifoApp(path, O_WRONLY, [leftValue](int fd) {
              std::array<int16_t, 960> block;
              for (size_t i = 0; i < block.size(); ++i) {
                  block[i] = i % 2 == 0 ? leftValue : int16_t{-1};
              }
              return write(fd, block.data(), sizeof block);
          }) {}
};

// Reads and discards.
class AppReader : public FifoApp {
  public:
    explicit AppReader(const std::string& path)
        : FifoApp(path, O_RDONLY, [](int fd) {
              std::array<char, 4096> bytes;
              return read(fd, bytes.data(), bytes.size());
          }) {}
};

}  // namespace uafd
