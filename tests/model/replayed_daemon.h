// SPDX-License-Identifier: Apache-2.0
// Both channels and the event loop with their own threads, on a stage: each call by which a thread
// waits for another or asks the outside world stops there and gets its answer from the script, and
// what threads wait for and where the FIFOs lead follows the script, too.
#pragma once

#include <map>
#include <pthread.h>
#include <string>

#include <sys/types.h>

#include "channel/uaf_snk.h"
#include "channel/uaf_src.h"
#include "daemon/event_loop.h"
#include "tests/model/stage.h"

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

// One object at a time; its hooks are those of the fixtures of fake_sys and fake_alsa.
class ReplayedDaemon {
  public:
    ReplayedDaemon();
    ~ReplayedDaemon() { stage.close(); }

    // What can be seen of channel 0 (source) or 1 (sink), a digit each: state, count, join pending,
    // names set, PCM open, FIFO open, worker threads, buffer threads. All threads at rest.
    std::string view(int channel);
    Stage stage;

  private:
    static std::map<pthread_mutex_t*, bool>& watchMutexes(
        std::map<pthread_mutex_t*, bool>& mutexes);
    void hookLocks();
    void hookThreads();
    void hookFifos();
    void hookCard();
    void runLoop();
    void lock(pthread_mutex_t* mutex);
    int tryLock(pthread_mutex_t* mutex);
    std::string waitForApp(int channel, const std::string& call);
    ssize_t transfer(int channel, const std::string& call, size_t size);
    void openPcm(int channel);

    std::map<pthread_mutex_t*, bool> held;  // the channels' mutexes
    bool frameBufferFails = false;
    int signalled = 0;  // the channel whose thread was signalled last
    std::map<pthread_mutex_t*, bool>& watched = watchMutexes(held);
    OpenChannel<UafSrc> source;
    OpenChannel<UafSnk> sink;
    EventLoop loop{source, sink};
};

}  // namespace uafd
