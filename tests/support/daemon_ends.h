// SPDX-License-Identifier: Apache-2.0
// The daemon's ends of the FIFOs and sockets that it shares with a companion app, in the test's own
// folder: opened and used as the daemon does, without the rest of a daemon. One thread.
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

    // Closes everything, like the end of a process: a bound socket stays in the file system.
    void end();
    void bindSocket();
    // Opens without O_NONBLOCK, in the daemon's order; true when neither open waited for ever.
    bool openFifos() { return finishOpening(beginOpening()); }
    std::future<void> beginOpening();
    bool finishOpening(std::future<void> opening) const;

    void play(const void* bytes, size_t size);
    void play(const std::vector<int16_t>& samples);
    // What one read of the microphone's FIFO returns; there must be something to read.
    std::vector<int16_t> record();

    int speakerFd() const { return speaker; }
    int micFd() const { return mic; }

    // Sends to the app; returns 0 or an errno.
    int sendBytes(const void* bytes, size_t size);
    int send(uint32_t type, uint32_t data);
    // The app's messages since the last call.
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
