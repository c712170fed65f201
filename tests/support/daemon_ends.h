// SPDX-License-Identifier: Apache-2.0
// The daemon's ends of what it shares with a companion app, in a folder of the test's own: opened
// and used as the daemon does it, and nothing else of a daemon. One thread.
#pragma once

#include <cstdint>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include <sys/un.h>

#include "tests/support/temp_dir.h"

namespace uafd {

class DaemonEnds {
  public:
    using Message = std::pair<uint32_t, uint32_t>;  // type, data

    explicit DaemonEnds(const TempDir& folder) : folder(folder.path()) {}
    ~DaemonEnds() { end(); }
    DaemonEnds(const DaemonEnds&) = delete;
    DaemonEnds& operator=(const DaemonEnds&) = delete;

    std::string path(const std::string& name) const { return folder + "/usbAudio" + name; }

    // As a process's end; what is bound stays in the file system.
    void end();
    void bindSocket();
    // Without O_NONBLOCK, in the daemon's order; true when neither had to wait for ever.
    bool openFifos() { return finishOpening(beginOpening()); }
    std::future<void> beginOpening();
    bool finishOpening(std::future<void> opening) const;

    void play(const void* bytes, size_t size);
    void play(const std::vector<int16_t>& samples);
    // What one read of the microphone's FIFO gives, which must have something.
    std::vector<int16_t> record();

    int speakerFd() const { return speaker; }
    int micFd() const { return mic; }

    // To the app; 0 or an errno.
    int sendBytes(const void* bytes, size_t size);
    int send(uint32_t type, uint32_t data);
    // What the app has sent since the last call.
    std::vector<Message> messages();

  private:
    sockaddr_un addressOf(const std::string& name) const;
    static void rescue(const std::string& fifo, const std::future<void>& opening);

    const std::string folder;
    int speaker = -1;
    int mic = -1;
    int daemonSocket = -1;
};

}  // namespace uafd
