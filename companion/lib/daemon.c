// SPDX-License-Identifier: Apache-2.0
// Whether a daemon runs. The system does not report that a datagram socket was closed, so the
// daemon's is tried; its file shows whether it is the same daemon.
#define _POSIX_C_SOURCE 200809L

#include <errno.h>

#include <sys/socket.h>
#include <sys/stat.h>

#include "state.h"

// Binding creates the file, so its number and time together are never used twice.
static uint64_t number_of(const struct stat* file) {
    const uint64_t time_ns =
        (uint64_t)file->st_mtim.tv_sec * 1000000000U + (uint64_t)file->st_mtim.tv_nsec;
    return ((uint64_t)file->st_ino << 40 ^ time_ns) | 1;
}

uint64_t uafd_private_look(const uafd_companion* companion) {
    const struct sockaddr_un* const daemon = &companion->daemon;
    struct stat found;
    // A socket that this process may not connect to may still have a daemon.
    if (connect(companion->probe, (const struct sockaddr*)daemon, sizeof *daemon) != 0 &&
        (errno == ENOENT || errno == ECONNREFUSED)) {
        return NO_DAEMON;
    }
    return stat(daemon->sun_path, &found) == 0 ? number_of(&found) : NO_DAEMON;
}

void uafd_private_tell(uafd_companion* companion, uafd_event_type type, int32_t value) {
    const unsigned pending = atomic_load_explicit(&companion->pending_count, memory_order_relaxed);
    companion->pending[pending].type = type;
    companion->pending[pending].value = value;
    if (type < STATES) {
        companion->told[type] = value;
    }
    atomic_store_explicit(&companion->pending_count, pending + 1, memory_order_relaxed);
}

static void tell_end(uafd_companion* companion) {
    uafd_private_tell(companion, UAFD_DAEMON_STATE, 0);
    for (int type = 0; type < STATES; ++type) {
        if (companion->told[type] != 0) {
            uafd_private_tell(companion, (uafd_event_type)type, 0);
        }
    }
}

// Sends a sync-up. If the daemon's socket is full, it is sent later; if the daemon has gone again,
// it counts as never seen.
static int ask(uafd_companion* companion) {
    const int error = uafd_companion_sync(companion);
    atomic_store_explicit(&companion->sync_owed, error == -EAGAIN, memory_order_relaxed);
    return error == -ECONNREFUSED ? error : 0;
}

void uafd_private_watch(uafd_companion* companion) {
    uint64_t found = uafd_private_look(companion);
    const uint64_t known = atomic_load_explicit(&companion->daemon_known, memory_order_relaxed);
    if (found == known) {
        if (atomic_load_explicit(&companion->sync_owed, memory_order_relaxed)) {
            ask(companion);
        }
        return;
    }
    if (known != NO_DAEMON) {
        tell_end(companion);
    }
    atomic_store_explicit(&companion->sync_owed, 0, memory_order_relaxed);
    if (found != NO_DAEMON && ask(companion) != 0) {
        found = NO_DAEMON;
    }
    if (found != NO_DAEMON) {
        uafd_private_tell(companion, UAFD_DAEMON_STATE, 1);
    }
    atomic_store_explicit(&companion->daemon_known, found, memory_order_relaxed);
}
