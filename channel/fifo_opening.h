// One blocking open of a FIFO, which lasts until the app opens the other end. An app that restarts
// may delete the FIFO and make it anew meanwhile: the open then waits on a FIFO that has no name
// any more, where nobody can answer it. This lets another thread end such a wait, by opening the
// other end itself for a moment; the opener then sees an app that has gone at once, and opens the
// path anew.
#pragma once

#include <pthread.h>

class FifoOpening {
  public:
    FifoOpening() = default;
    FifoOpening(const FifoOpening&) = delete;
    FifoOpening& operator=(const FifoOpening&) = delete;

    // open(2) of `openedPath` with `flags`, O_RDONLY or O_WRONLY: the descriptor, or -1 and errno;
    // EINTR while opens are abandoned. One thread at a time.
    int open(const char* openedPath, int flags);

    // The rest is for any other thread.

    // Ends an open whose path no longer leads to the FIFO that it waits on.
    void releaseIfReplaced();

    // From here on no open begins to wait. Returns when the one under way has ended: as long as its
    // FIFO has a name, the app must open the other end.
    void abandon();
    // Opens are wanted again.
    void allow();

  private:
    bool isReplaced() const;
    // False with errno when the open fails before it can wait.
    bool begin(const char* openedPath, int flags);
    void end();
    bool isWaiting();

    // Guards what follows; a leaf, held for a few system calls that do not wait.
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    bool abandoned = false;
    bool waiting = false;
    const char* path = nullptr;  // of the open under way; its thread keeps it valid
    int otherEndFlags = 0;       // what opens the other end
    int handle = -1;             // O_PATH: holds on to the FIFO whatever becomes of its name
};
