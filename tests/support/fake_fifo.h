// SPDX-License-Identifier: Apache-2.0
// Stands in for the FIFO that a channel shares with the app. Calls appear in a journal as
// "open PATH FLAGS", "set pipe BYTES", "get pipe" and "close FD"; reads and writes do not.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace uafd {

class FakeFifo {
  public:
    static constexpr int kFd = 77;
    static constexpr int kGrantedPipeBytes = 4096;

    explicit FakeFifo(std::vector<std::string>& journal) : journal(journal) {}

    // Installs the hooks; *this must outlive the calls. Every read and write must be of a whole
    // block.
    void install(size_t blockBytes);

    int openResult = kFd;  // -1 fails with ENOENT
    // The results of the app's reads and writes; by default whole blocks.
    std::function<ssize_t(int16_t* samples, size_t bytes)> onRead;
    std::function<ssize_t(const int16_t* samples, size_t bytes)> onWrite;

  private:
    std::vector<std::string>& journal;
};

}  // namespace uafd
