// SPDX-License-Identifier: Apache-2.0
// The companion app as a process that can be killed at any moment: it hears and speaks through the
// FIFOs, receives the daemon's messages and sends its own. One thread.
#pragma once

#include <atomic>
#include <cstdint>

#include <sys/types.h>

#include "tests/process/daemon.h"

namespace uafd::process {

class App {
  public:
    // The app begins to live with start().
    explicit App(const Root& root);
    // Kills it.
    ~App();
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    void start();
    void kill();
    bool isRunning() const { return pid > 0; }
    int deaths() const { return deathCount; }
    // Before this returns, the daemon's messages may be lost, as nobody receives them.
    void waitUntilListening() const;
    // A paused app keeps everything open and uses nothing.
    void pause(bool paused);
    // From now on the app speaks and hears more slowly than the host, until the end.
    void slowDown();

    // These count all its lives.
    uint64_t heardBytes() const { return seen->heardBytes; }
    uint64_t saidBytes() const { return seen->saidBytes; }
    uint64_t messages() const { return seen->messages; }
    // The data of the newest message of that type, 0 to 7.
    uint32_t lastOf(uint32_t type) const { return seen->last[type & 7]; }
    // Stereo frames whose samples differ; the daemon never sends such a frame.
    uint64_t tornFrames() const { return seen->tornFrames; }

  private:
    // Memory that the lives share with the test.
    struct Seen {
        std::atomic<bool> paused{false};
        std::atomic<bool> slow{false};
        std::atomic<uint32_t> listening{0};  // the life that has bound its socket
        std::atomic<uint64_t> heardBytes{0};
        std::atomic<uint64_t> saidBytes{0};
        std::atomic<uint64_t> tornFrames{0};
        std::atomic<uint64_t> messages{0};
        std::atomic<uint32_t> last[8] = {};
    };
    class Life;

    const Root& root;
    Seen* seen;
    pid_t pid = -1;
    uint32_t lives = 0;
    int deathCount = 0;
};

}  // namespace uafd::process
