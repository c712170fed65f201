// Messages to and from the daemon: a datagram of two 32-bit words each.
#include <errno.h>

#include <sys/socket.h>

#include "companion/lib/companion_state.h"

typedef struct message {
    uint32_t type;
    uint32_t data;
} message;

enum { SYNC_UP = 7 };  // the one type that is no event's

static int send_message(uafd_companion* companion, uint32_t type, uint32_t data) {
    const message sent = {type, data};
    const ssize_t result =
        sendto(companion->socket, &sent, sizeof sent, 0, (const struct sockaddr*)&companion->daemon,
               sizeof companion->daemon);
    if (result >= 0) {
        count(&companion->counts.messages_sent, 1);
        return 0;
    }
    const int error = errno;
    count(&companion->counts.messages_failed, 1);
    // Before its first start a daemon has no socket, after its end one that nobody is behind.
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

int uafd_companion_next_event(uafd_companion* companion, uafd_event* event) {
    if (!companion->bound) {
        return -EBADF;
    }
    for (;;) {
        message received;
        // Asks for the datagram's own size, so that one that is too long shows.
        const ssize_t size = recv(companion->socket, &received, sizeof received, MSG_TRUNC);
        if (size < 0 && errno != EINTR) {
            return errno == EAGAIN ? 0 : -errno;
        }
        if (size == (ssize_t)sizeof received && received.type <= UAFD_MIC_MUTE) {
            event->type = (uafd_event_type)received.type;
            event->value = value_of(&received);
            count(&companion->counts.events, 1);
            return 1;
        }
        if (size >= 0) {
            count(&companion->counts.datagrams_bad, 1);
        }
    }
}
