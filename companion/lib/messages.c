// SPDX-License-Identifier: Apache-2.0
// Messages to and from the daemon: a datagram of two 32-bit words each.
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <string.h>

#include <sys/socket.h>

#include "state.h"

typedef struct message {
    uint32_t type;
    uint32_t data;
} message;

enum { SYNC_UP = 7 };  // the only message to the daemon that is not also an event

static int send_message(uafd_companion* companion, uint32_t type, uint32_t data) {
    const message sent = {type, data};
    const ssize_t result =
        sendto(companion->socket, &sent, sizeof sent, 0, (const struct sockaddr*)&companion->daemon,
               sizeof companion->daemon);
    if (result >= 0) {
        uafd_private_count(companion, MESSAGES_SENT, 1);
        return 0;
    }
    const int error = errno;
    uafd_private_count(companion, MESSAGES_FAILED, 1);
    // Before its first start a daemon has no socket, after its end one that nobody is bound to.
    return error == ENOENT ? -ECONNREFUSED : -error;
}

int uafd_companion_sync(uafd_companion* companion) {
    return send_message(companion, SYNC_UP, 0);
}

int uafd_companion_set_speaker_volume(uafd_companion* companion, int16_t volume) {
    return send_message(companion, UAFD_SPEAKER_VOLUME, (uint16_t)volume);
}

int uafd_companion_set_speaker_mute(uafd_companion* companion, int muted) {
    return send_message(companion, UAFD_SPEAKER_MUTE, muted ? 1 : 0);
}

static int32_t value_of(const message* received) {
    const int volume = received->type == UAFD_SPEAKER_VOLUME || received->type == UAFD_MIC_VOLUME;
    // Of a volume the upper half is undefined.
    return volume ? (int16_t)(received->data & 0xFFFF) : received->data != 0;
}

// 1, 0 when there is none, or a negative errno.
static int receive(uafd_companion* companion, message* received) {
    for (;;) {
        // MSG_TRUNC gives the datagram's real size, so that a too long one is recognised.
        const ssize_t size = recv(companion->socket, received, sizeof *received, MSG_TRUNC);
        if (size < 0 && errno != EINTR) {
            return errno == EAGAIN ? 0 : -errno;
        }
        if (size == (ssize_t)sizeof *received && received->type <= UAFD_MIC_MUTE) {
            return 1;
        }
        if (size >= 0) {
            uafd_private_count(companion, DATAGRAMS_BAD, 1);
        }
    }
}

static int take_pending(uafd_companion* companion, uafd_event* event) {
    const unsigned pending = atomic_load_explicit(&companion->pending_count, memory_order_relaxed);
    if (pending == 0) {
        return 0;
    }
    *event = companion->pending[0];
    memmove(&companion->pending[0], &companion->pending[1], (pending - 1) * sizeof *event);
    atomic_store_explicit(&companion->pending_count, pending - 1, memory_order_relaxed);
    uafd_private_count(companion, EVENTS, 1);
    return 1;
}

static int knows_daemon(const uafd_companion* companion) {
    return atomic_load_explicit(&companion->daemon_known, memory_order_relaxed) != NO_DAEMON;
}

// Delivers all that a daemon has sent before its end. A message from an unknown daemon shows that
// one runs or has run; if it has ended, its states are no longer valid.
int uafd_companion_next_event(uafd_companion* companion, uafd_event* event) {
    if (!companion->bound) {
        return -EBADF;
    }
    while (!take_pending(companion, event)) {
        message received;
        const int result = receive(companion, &received);
        if (result < 0) {
            return result;
        }
        if (result == 0 || !knows_daemon(companion)) {
            uafd_private_watch(companion);
        }
        if (result == 1 && knows_daemon(companion)) {
            uafd_private_tell(companion, (uafd_event_type)received.type, value_of(&received));
        } else if (result == 1) {
            uafd_private_count(companion, DATAGRAMS_BAD, 1);
        } else if (!uafd_private_has_pending(companion)) {
            return 0;
        }
    }
    return 1;
}
