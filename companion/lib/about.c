// SPDX-License-Identifier: Apache-2.0
// The library's version, its errors in words, and its counts.
#include <errno.h>
#include <string.h>

#include "state.h"

const char* uafd_companion_version(void) {
    return UAFD_COMPANION_VERSION;
}

const char* uafd_companion_error_text(int result) {
    switch (-result) {
        case EACCES:
            return "a file or the folder is not for this user and group";
        case EAGAIN:
            return "the other side is full at present";
        case EBADF:
            return "this part was not opened";
        case EBUSY:
            return "an app has this part open already";
        case ECONNREFUSED:
            return "no daemon runs";
        case EEXIST:
            return "something that is no FIFO has a FIFO's name";
        case EINTR:
            return "a signal came";
        case EINVAL:
            return "an option is not understood";
        case ENAMETOOLONG:
            return "the folder's name is too long";
        case ENOENT:
            return "there is no such folder";
        case EPERM:
            return "not allowed: another user's file is in the way, or the group is not this "
                   "user's";
        case EPIPE:
            return "the daemon does not read";
        default:
            return result < 0 ? strerror(-result) : "no error";
    }
}

static uint64_t count_of(const uafd_companion* companion, int counter) {
    return atomic_load_explicit(&companion->counts[counter], memory_order_relaxed);
}

void uafd_companion_counts(const uafd_companion* companion, uafd_counts* counts) {
    counts->frames_read = count_of(companion, FRAMES_READ);
    counts->blocks_taken = count_of(companion, BLOCKS_TAKEN);
    counts->blocks_refused = count_of(companion, BLOCKS_REFUSED);
    counts->blocks_unread = count_of(companion, BLOCKS_UNREAD);
    counts->events = count_of(companion, EVENTS);
    counts->datagrams_bad = count_of(companion, DATAGRAMS_BAD);
    counts->messages_sent = count_of(companion, MESSAGES_SENT);
    counts->messages_failed = count_of(companion, MESSAGES_FAILED);
}
