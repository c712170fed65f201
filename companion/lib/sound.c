// SPDX-License-Identifier: Apache-2.0
// Frames from the speaker's FIFO, blocks into the microphone's.
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "state.h"

#define BLOCK_BYTES (UAFD_BLOCK_FRAMES * FRAME_BYTES)
#define FRAMES_MAX ((size_t)INT_MAX / FRAME_BYTES)

// A FIFO takes writes of up to this size completely or not at all.
_Static_assert(BLOCK_BYTES <= PIPE_BUF, "a block might be written in part");

static ssize_t read_some(int fd, void* bytes, size_t size) {
    ssize_t got;
    do {
        got = read(fd, bytes, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

int uafd_companion_read(uafd_companion* companion, int16_t* samples, size_t count_max) {
    if (companion->speaker < 0) {
        return -EBADF;
    }
    if (count_max == 0) {
        return 0;
    }
    const size_t frames_max = count_max < FRAMES_MAX ? count_max : FRAMES_MAX;
    unsigned char* bytes = (unsigned char*)samples;
    size_t filled = companion->partial_bytes;
    memcpy(bytes, companion->partial, filled);
    const ssize_t got =
        read_some(companion->speaker, bytes + filled, frames_max * FRAME_BYTES - filled);
    if (got < 0) {
        return errno == EAGAIN ? 0 : -errno;
    }
    filled += (size_t)got;
    companion->partial_bytes = filled % FRAME_BYTES;
    memcpy(companion->partial, bytes + filled - companion->partial_bytes, companion->partial_bytes);
    const size_t frames = filled / FRAME_BYTES;
    uafd_private_count(companion, FRAMES_READ, frames);
    return (int)frames;
}

// Without a reader a write raises SIGPIPE, which would end a process that does not handle it. The
// signal is blocked in this thread and consumed, unless it was already pending.
static ssize_t write_without_signal(int fd, const void* bytes, size_t size) {
    const struct timespec at_once = {0, 0};
    sigset_t sigpipe;
    sigset_t pending;
    sigset_t mask;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    sigemptyset(&pending);
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &sigpipe, &mask);
    ssize_t written;
    do {
        written = write(fd, bytes, size);
    } while (written < 0 && errno == EINTR);
    const int error = errno;
    if (written < 0 && error == EPIPE && !sigismember(&pending, SIGPIPE)) {
        while (sigtimedwait(&sigpipe, NULL, &at_once) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &mask, NULL);
    errno = error;
    return written;
}

int uafd_companion_write(uafd_companion* companion, const int16_t* samples) {
    if (companion->mic < 0) {
        return -EBADF;
    }
    if (write_without_signal(companion->mic, samples, BLOCK_BYTES) >= 0) {
        uafd_private_count(companion, BLOCKS_TAKEN, 1);
        return 0;
    }
    const int error = errno;
    uafd_private_count(companion, error == EPIPE ? BLOCKS_UNREAD : BLOCKS_REFUSED, 1);
    return -error;
}
