// SPDX-License-Identifier: Apache-2.0
// The state of an open companion, and what the library's sources share. Internal. Each of the four
// jobs that the public header names has its own fields; the atomic ones are shared.
#pragma once

#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>

#include <sys/types.h>
#include <sys/un.h>

#include "uafd_companion.h"

#define FRAME_BYTES (UAFD_CHANNELS * sizeof(int16_t))
#define STATES 3       // types 0, 1 and 2 are states, and 0 at a daemon's end
#define PENDING_MAX 6  // a daemon's end, a 0 for each state, a daemon's beginning, its message
#define NO_DAEMON 0    // in place of what uafd_private_look found
#define NO_GROUP ((gid_t)-1)

// In the order of uafd_counts.
enum {
    FRAMES_READ,
    BLOCKS_TAKEN,
    BLOCKS_REFUSED,
    BLOCKS_UNREAD,
    EVENTS,
    DATAGRAMS_BAD,
    MESSAGES_SENT,
    MESSAGES_FAILED,
    COUNTERS
};

struct uafd_companion {
    // From opening to closing; -1 is not open.
    int speaker;                // the FIFO that the daemon writes, open for reading
    int keeper;                 // the same for writing: a daemon that goes is no end of file
    int mic;                    // the FIFO that the daemon reads, open for writing
    int socket;                 // sends; receives when it is bound
    int bound;                  // whether `socket` is bound
    int probe;                  // a socket that tries the daemon's
    int wake;                   // an eventfd
    struct sockaddr_un daemon;  // where messages go
    const char* unopened;       // the only FIFO that was not opened, or null
    gid_t group;                // of that FIFO if it is made
    mode_t mode;                // the same

    // Used by reading.
    unsigned char partial[FRAME_BYTES];  // the received bytes of the speaker's next frame
    size_t partial_bytes;

    // Used by waiting: times of CLOCK_MONOTONIC; 0 is at once.
    int64_t block_due_ns;
    int64_t look_due_ns;

    // Used by taking events.
    uafd_event pending[PENDING_MAX];  // the oldest first
    int told[STATES];                 // 1 as soon as it is pending

    // Written by taking events, read by waiting. None of these orders other memory.
    _Atomic uint64_t daemon_known;      // the daemon that the app was told of
    _Atomic unsigned pending_count;     // in the order of pending
    _Atomic unsigned sync_owed;         // 1 while the daemon has not taken the library's sync-up
    _Atomic uint64_t counts[COUNTERS];  // of all
};

// Where and how FIFOs and sockets are made.
typedef struct uafd_private_place {
    const char* directory;
    gid_t group;
    mode_t mode;
} uafd_private_place;

// files.c. Each returns 0 or a negative errno; `name` is a file's name in the directory. Even after
// a failure the caller owns the descriptors that were opened.
int uafd_private_address(struct sockaddr_un* address, const char* directory, const char* name);
int uafd_private_socket(int* opened);
// 0 when nobody uses the address: there is no file, or one that its owner left behind.
int uafd_private_check_unused(const struct sockaddr_un* address);
// Binds the socket, in place of a file that nobody uses; -EBUSY when somebody does.
int uafd_private_bind(int socket, const uafd_private_place* place, const char* name);
// Leaves a socket's file that nobody is bound to, unless there is a file already.
int uafd_private_leave_closed_socket(const uafd_private_place* place, const char* name);
// Opens both ends of the FIFO, which it makes if it is missing; -EEXIST when the file is no FIFO.
int uafd_private_open_fifo(const uafd_private_place* place, const char* name, int* reader,
                           int* writer);
// Makes the FIFO if it is missing; otherwise opens and closes an end, if somebody has the other
// one.
int uafd_private_touch_fifo(const uafd_private_place* place, const char* name, int is_reader);

// daemon.c. A number that identifies the daemon bound to the daemon's address, or NO_DAEMON.
uint64_t uafd_private_look(const uafd_companion* companion);
// Looks for the daemon and appends what has changed to the pending events. Called by the thread
// that takes events.
void uafd_private_watch(uafd_companion* companion);
// Appends an event to the pending ones, which must have room.
void uafd_private_tell(uafd_companion* companion, uafd_event_type type, int32_t value);

static inline int uafd_private_has_pending(const uafd_companion* companion) {
    return atomic_load_explicit(&companion->pending_count, memory_order_relaxed) != 0;
}

static inline void uafd_private_count(uafd_companion* companion, int counter, uint64_t more) {
    atomic_fetch_add_explicit(&companion->counts[counter], more, memory_order_relaxed);
}
