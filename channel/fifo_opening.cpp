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

}  // namespace

int FifoOpening::open(const char* openedPath, int flags) {
    if (!begin(openedPath, flags)) {
        errno = EINTR;
        return -1;
    }
    const int fd = ::open(openedPath, flags);
    const int openErrno = errno;
    end();
    errno = openErrno;
    return fd;
}

bool FifoOpening::begin(const char* openedPath, int flags) {
    pthread_mutex_lock(&mutex);
    waiting = !abandoned;
    if (waiting) {
        path = openedPath;
        otherEndFlags = (flags == O_RDONLY ? O_WRONLY : O_RDONLY) | O_NONBLOCK | O_CLOEXEC;
        handle = openat(AT_FDCWD, openedPath, O_PATH | O_CLOEXEC);
    }
    const bool begun = waiting;
    pthread_mutex_unlock(&mutex);
    return begun;
}

void FifoOpening::end() {
    pthread_mutex_lock(&mutex);
    waiting = false;
    if (handle >= 0) {
        ::close(handle);
        handle = -1;
    }
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
        char link[32];
        snprintf(link, sizeof link, "/proc/self/fd/%d", handle);
        const int otherEnd = openat(AT_FDCWD, link, otherEndFlags);
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
