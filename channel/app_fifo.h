// SPDX-License-Identifier: Apache-2.0
// One end of one of the companion app's FIFOs. Opening it waits until the app holds the other end,
// reading until the app writes, writing until the app reads: for as long as the app likes. These
// are plain blocking calls. Another thread ends such a wait by a signal to the thread that waits,
// whose handler does nothing: the call fails with EINTR.
//
// One thread at a time opens, reads, writes and closes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include <sys/types.h>

namespace uafd {

class AppFifo {
  public:
    // Installs the signal's handler, for the process and for good.
    AppFifo();
    // Closes nothing.
    ~AppFifo() = default;
    AppFifo(const AppFifo&) = delete;
    AppFifo& operator=(const AppFifo&) = delete;

    // ---- The thread that uses the FIFO ---------------------------------------------------------

    // Opens `path` with `flags`, O_RDONLY or O_WRONLY, and asks for a pipe capacity of
    // `blockBytes`. False when it does not open, also for a null path, or when the wait was ended.
    // Logs under `tag`: "failed to open %s\n" (error), "%s opened buffer size %d\n" (debug);
    // nothing when the wait was ended.
    bool openEnd(const char* path, int flags, size_t blockBytes, const char* tag);

    // Descriptor 0 is standard input, which is not this class's to use or to close: an open that
    // gave it counts as none, and the next one is made in its place.
    bool isOpen() const { return descriptor >= 1; }
    // What is open is a pipe, whose reads and writes wait.
    bool isPipe() const { return pipe; }

    // read(2) and write(2): the bytes, 0, or -1 and errno. A signal that comes when the wait that
    // it was for is over costs nothing: the call is made again, unless waits were ended. A block of
    // up to PIPE_BUF bytes is written whole.
    ssize_t read(void* block, size_t bytes);
    ssize_t write(const void* block, size_t bytes);

    void close();

    // A call has failed because waits were ended. What was open is still open.
    bool wasLetOut() const { return letOut; }

    // ---- Any other thread ----------------------------------------------------------------------

    // Makes a thread that waits in openEnd look at the path again: an app that restarts may have
    // replaced the FIFO, and nobody can answer on the old one, which has no name. Returns when it
    // has looked; that takes about a millisecond, whatever the app does.
    void lookAgain();

    // Ends the wait of `user`, the thread that uses the FIFO, and every wait that it begins from
    // here on. Returns when `userRunning` has become 0, which is for the user to set; or at once
    // when there is no such thread. The caller joins it afterwards.
    void endWaits(pthread_t user, const std::atomic<int32_t>& userRunning);
    bool waitsEnded() const { return ended.load(std::memory_order_acquire); }
    // Before the next thread that uses the FIFO is created.
    void allowWaits();

  private:
    int openPath(const char* path, int flags);
    void beginLook();
    void endLook();
    bool wasInterrupted();

    int descriptor = -1;
    bool pipe = false;
    bool letOut = false;
    // Release and acquire: what the stop wrote before is seen by the thread that it ends.
    std::atomic<bool> ended{false};

    // Guards what follows; a leaf, held for nothing that waits. Whoever signals the looking thread
    // holds it, so that the thread is there: it cannot have gone on, ended and been joined.
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    bool looking = false;  // a thread is in, or just before or behind, open(2)
    pthread_t looker{};
    unsigned looks = 0;  // begun so far; wraps
};

}  // namespace uafd
