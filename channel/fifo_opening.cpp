#include "channel/fifo_opening.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include <sys/stat.h>

namespace {

// How often an abandoned open is looked at: the app may delete its FIFO at any time.
constexpr timespec ABANDON_POLL{0, 10000000};

// The name under which what a descriptor holds on to can be opened.
class Link {
  public:
    explicit Link(int fd) { snprintf(text, sizeof text, "/proc/self/fd/%d", fd); }
    const char* path() const { return text; }

  private:
    char text[32];
};

}  // namespace

int FifoOpening::open(const char* openedPath, int flags) {
    if (!begin(openedPath, flags)) {
        return -1;
    }
    // Not by its name once more: that may lead to another FIFO by now, which would be waited on
    // unknown to those who can end the wait.
    const int fd = ::open(Link(handle).path(), flags);
    const int openErrno = errno;
    end();
    errno = openErrno;
    return fd;
}

bool FifoOpening::begin(const char* openedPath, int flags) {
    pthread_mutex_lock(&mutex);
    errno = EINTR;
    if (!abandoned) {
        path = openedPath;
        otherEndFlags = (flags == O_RDONLY ? O_WRONLY : O_RDONLY) | O_NONBLOCK | O_CLOEXEC;
        handle = openat(AT_FDCWD, openedPath, O_PATH | O_CLOEXEC);
    }
    waiting = handle >= 0;
    const bool begun = waiting;
    pthread_mutex_unlock(&mutex);
    return begun;
}

void FifoOpening::end() {
    pthread_mutex_lock(&mutex);
    waiting = false;
    ::close(handle);
    handle = -1;
    pthread_mutex_unlock(&mutex);
}

void FifoOpening::abandon() {
    pthread_mutex_lock(&mutex);
    abandoned = true;
    pthread_mutex_unlock(&mutex);
    while (isWaiting()) {
        releaseIfReplaced();
        nanosleep(&ABANDON_POLL, nullptr);
    }
}

void FifoOpening::allow() {
    pthread_mutex_lock(&mutex);
    abandoned = false;
    pthread_mutex_unlock(&mutex);
}

bool FifoOpening::isWaiting() {
    pthread_mutex_lock(&mutex);
    const bool result = waiting;
    pthread_mutex_unlock(&mutex);
    return result;
}

void FifoOpening::releaseIfReplaced() {
    pthread_mutex_lock(&mutex);
    if (handle >= 0 && isReplaced()) {
        const int otherEnd = openat(AT_FDCWD, Link(handle).path(), otherEndFlags);
        if (otherEnd >= 0) {
            ::close(otherEnd);
        }
    }
    pthread_mutex_unlock(&mutex);
}

bool FifoOpening::isReplaced() const {
    struct stat waitedOn {};
    struct stat named {};
    if (fstat(handle, &waitedOn) != 0) {
        return false;
    }
    return stat(path, &named) != 0 || named.st_dev != waitedOn.st_dev ||
           named.st_ino != waitedOn.st_ino;
}
