// SPDX-License-Identifier: Apache-2.0
// Both channels and the event loop with their own threads, on a stage: a call by which a thread
// waits for another or asks the outside world stops there and gets its answer from the script. The
// waiting threads and the FIFOs' paths follow the script, too.
#pragma once

#include <pthread.h>
#include <string>
#include <vector>

#include <sys/types.h>

#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "daemon/event_loop.h"
#include "tests/model/stage.h"
#include "tests/support/fake_locks.h"
#include "tests/support/fake_threads.h"

namespace uafd {

template <typename Channel>
class OpenChannel : public Channel {
  public:
    using Channel::fifo;
    using Channel::fifoName;
    using Channel::intfMutex;
    using Channel::joinPending;
    using Channel::pcmHandle;
    using Channel::pcmName;
    using Channel::state;
    using Channel::stopDelayCnt;
};

// One object at a time; it uses the hooks of fake_sys's and fake_alsa's fixtures.
class ReplayedDaemon {
  public:
    ReplayedDaemon();
    ~ReplayedDaemon() { stage.close(); }

    // The visible state of channel 0 (source) or 1 (sink), a digit each: state, count, join
    // pending, names set, PCM open, FIFO open, worker threads, buffer threads. All threads must be
    // at rest.
    std::string view(int channel);
    Stage stage;

  private:
    // The channels' mutexes, which they initialise in their constructors.
    struct Locks : FakeLocks {
        explicit Locks(std::vector<std::string>& journal) : FakeLocks(journal) {
            install();
            watchNew({"0", "ssrs", "1"});
        }
    };

    void hookLocks();
    void hookThreads();
    void hookFifos();
    void hookCard();
    void runLoop();
    int create(FakeThreads::Thread& thread);
    std::string waitForApp(int channel, const std::string& call);
    ssize_t transfer(int channel, const std::string& call, size_t size);
    void openPcm(int channel);

    std::vector<std::string> journal;
    Locks locks{journal};
    FakeThreads threads{journal};
    bool frameBufferFails = false;
    int signalled = 0;  // the channel whose thread was signalled last
    OpenChannel<UafSrc> source;
    OpenChannel<UafSnk> sink;
    EventLoop loop{source, sink};
};

}  // namespace uafd
