// SPDX-License-Identifier: Apache-2.0
// Waiting for sound, events, the next block's time and a wake.
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include "state.h"

#define LATE_BLOCKS_MAX 2
#define LOOK_NS 200000000LL  // between two looks for the daemon
#define NS_PER_MS 1000000LL
#define NS_PER_SECOND 1000000000LL

static int64_t now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

static int64_t earlier(int64_t a, int64_t b) {
    return a < b ? a : b;
}

// The time until something is due or the wait ends, in milliseconds rounded up; -1 for ever.
static int poll_timeout(const uafd_companion* companion, int64_t end_ns, int64_t now) {
    int64_t due = companion->mic >= 0 ? earlier(end_ns, companion->block_due_ns) : end_ns;
    due = companion->bound ? earlier(due, companion->look_due_ns) : due;
    if (due <= now || uafd_private_has_pending(companion)) {
        return 0;
    }
    return due == INT64_MAX ? -1 : (int)((due - now - 1) / NS_PER_MS + 1);
}

static int take_due_block(uafd_companion* companion, int64_t now) {
    if (companion->mic < 0 || now < companion->block_due_ns) {
        return 0;
    }
    const int64_t late = now - companion->block_due_ns;
    const int64_t base =
        late > LATE_BLOCKS_MAX * (int64_t)UAFD_BLOCK_NS ? now : companion->block_due_ns;
    companion->block_due_ns = base + UAFD_BLOCK_NS;
    return UAFD_READY_BLOCK;
}

static int take_wake(uafd_companion* companion) {
    uint64_t times;
    return read(companion->wake, &times, sizeof times) == (ssize_t)sizeof times ? UAFD_READY_WAKE
                                                                                : 0;
}

// Finds news that do not come through the socket.
static int find_news(uafd_companion* companion, int64_t now) {
    if (uafd_private_has_pending(companion)) {
        return UAFD_READY_EVENT;
    }
    if (!companion->bound || now < companion->look_due_ns) {
        return 0;
    }
    companion->look_due_ns = now + LOOK_NS;
    const uint64_t known = atomic_load_explicit(&companion->daemon_known, memory_order_relaxed);
    const int changed = uafd_private_look(companion) != known ||
                        atomic_load_explicit(&companion->sync_owed, memory_order_relaxed) != 0;
    return changed ? UAFD_READY_EVENT : 0;
}

int uafd_companion_wait_for(uafd_companion* companion, int timeout_ms) {
    struct pollfd sources[] = {{companion->speaker, POLLIN, 0},
                               {uafd_companion_events_fd(companion), POLLIN, 0},
                               {companion->wake, POLLIN, 0}};
    int64_t now = now_ns();
    const int64_t end = timeout_ms < 0 ? INT64_MAX : now + timeout_ms * NS_PER_MS;
    for (;;) {
        if (poll(sources, 3, poll_timeout(companion, end, now)) < 0) {
            return -errno;
        }
        now = now_ns();
        const int ready = (sources[0].revents != 0 ? UAFD_READY_SOUND : 0) |
                          (sources[1].revents != 0 ? UAFD_READY_EVENT : 0) |
                          (sources[2].revents != 0 ? take_wake(companion) : 0) |
                          find_news(companion, now) | take_due_block(companion, now);
        if (ready != 0 || now >= end) {
            return ready;
        }
    }
}

int uafd_companion_wait(uafd_companion* companion) {
    return uafd_companion_wait_for(companion, -1);
}

// The write can only fail because the counter is full, which wakes as well.
void uafd_companion_wake(uafd_companion* companion) {
    const uint64_t once = 1;
    const int error = errno;
    if (write(companion->wake, &once, sizeof once) < 0) {
        errno = error;
    }
}
