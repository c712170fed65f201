// SPDX-License-Identifier: Apache-2.0
// The app IPC service on faked system calls: sockets are numbers, a thread's function waits until
// the test runs it, and sent messages are collected. One thread. Each object begins with an empty
// queue and no stored states.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ipc/uaf_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"
#include "tests/support/fake_threads.h"

namespace uafd {

class IpcService {
  public:
    using Message = std::pair<uint32_t, uint32_t>;  // type, data
    static constexpr int kTxSocket = 901;
    static constexpr int kRxSocket = 902;

    IpcService() { renewQueue(); }

    // Gives the process a new queue, as at its start; messages that still wait in the old one are
    // not freed.
    static void renewQueue();
    static const MsgQueue& queue();

    // Sets the hooks that keep start() away from the system; each call is noted in `calls`.
    void hold();
    bool start();
    // Starts the service with the hooks as they are.
    bool startAgain() { return ipc.start(); }

    // Run the service's threads on this one, until a hook ends their loop.
    void runRx() { threads.created[0].run(); }
    void runTx() { threads.created[1].run(); }

    // Every message that waits for the app, taken from the queue by the real transmit loop.
    std::vector<Message> take();

    std::vector<std::string> calls;

  private:
    void note(const std::string& call, int a, int b, int c);

    UafIpc ipc;
    FakeThreads threads{calls};
    int sockets = 0;
};

namespace ipc_service {

// The log between these two lines, which must be its first and its last.
std::vector<fake_log::Line> linesBetween(const fake_log::Line& first, const fake_log::Line& last);

// The message's bytes on the socket.
std::string bytesOf(uint32_t type, uint32_t data);

}  // namespace ipc_service
}  // namespace uafd
