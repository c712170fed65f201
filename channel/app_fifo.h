// SPDX-License-Identifier: Apache-2.0
// One end of one of the companion app's FIFOs. An open waits until the app holds the other end, a
// read until the app writes, a write until the app reads, without a time limit. These are plain
// blocking calls. Another thread ends such a wait by sending the waiting thread a signal whose
// handler does nothing: the call then fails with EINTR.
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
    // Installs the signal's handler, for the whole process, permanently.
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

    // Descriptor 0 is standard input, which this class must neither use nor close. An open that
    // returned 0 counts as failed, and the next call opens again.
    bool isOpen() const { return descriptor >= 1; }
    // Whether the open file is a pipe, whose reads and writes wait.
    bool isPipe() const { return pipe; }

    // read(2) and write(2): the number of bytes, 0, or -1 and errno. A call that a late signal
    // interrupts is repeated, unless waits were ended. A block of up to PIPE_BUF bytes is written
    // in one piece.
    ssize_t read(void* block, size_t bytes);
    ssize_t write(const void* block, size_t bytes);

    // Closes an open FIFO. Logs nothing.
    void close();

    // Whether the last call failed because waits were ended. An open FIFO is then still open.
    bool wasLetOut() const { return letOut; }

    // ---- Any other thread ----------------------------------------------------------------------

    // Makes a thread that waits in openEnd look at the path again: an app that restarts may have
    // replaced the FIFO, and nobody can open the old one any more. Returns when the thread has
    // looked, about a millisecond later, whatever the app does; at once when no thread waits there.
    void lookAgain();

    // Ends the wait of `user`, the thread that uses the FIFO, and every wait that it begins from
    // now on. Returns when that thread has set `userRunning` to 0, or at once when there is no such
    // thread. The caller joins it afterwards.
    void endWaits(pthread_t user, const std::atomic<int32_t>& userRunning);
    // Whether endWaits was called and allowWaits has not undone it.
    bool waitsEnded() const { return ended.load(std::memory_order_acquire); }
    // Undoes endWaits. Call it before the next thread that uses the FIFO is created.
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

    // Guards the members below; the innermost lock, never held over a wait. It is held while the
    // looking thread is signalled, so that this thread cannot end and be joined meanwhile.
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    bool looking = false;  // a thread is in open(2), or just before or after it
    pthread_t looker{};
    unsigned looks = 0;  // begun so far; wraps
};

}  // namespace uafd
