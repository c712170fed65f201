// SPDX-License-Identifier: Apache-2.0
// Opening and closing, what an open companion can be asked, the version, and errors in words.
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <grp.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <sys/eventfd.h>
#include <sys/file.h>

#include "state.h"

#define DIRECTORY "/tmp"
#define FIFO_RX "usbAudioFifoRx"
#define FIFO_TX "usbAudioFifoTx"
#define SOCKET_RX "usbAudioUdsIpcRx"
#define SOCKET_TX "usbAudioUdsIpcTx"
#define MODE 0660
#define MODE_BITS 0777U
#define GROUP_BYTES 16384  // of a group's line with all its members; one that is longer is refused

static int find_group(const char* group, gid_t* id) {
    if (group == NULL) {
        *id = NO_GROUP;
        return 0;
    }
    char* end = NULL;
    errno = 0;
    const unsigned long number = strtoul(group, &end, 10);
    if (group[0] >= '0' && group[0] <= '9' && *end == '\0') {
        *id = (gid_t)number;
        return errno == 0 && *id == number && *id != NO_GROUP ? 0 : -EINVAL;
    }
    char* const bytes = malloc(GROUP_BYTES);
    if (bytes == NULL) {
        return -ENOMEM;
    }
    struct group entry;
    struct group* found = NULL;
    const int error = getgrnam_r(group, &entry, bytes, GROUP_BYTES, &found);
    *id = found == NULL ? NO_GROUP : found->gr_gid;
    free(bytes);
    return error == 0 && found == NULL ? -EINVAL : -error;
}

static int is_zero(const unsigned char* bytes, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != 0) {
            return 0;
        }
    }
    return 1;
}

// A program that was compiled with a later header may know more options, and leave those 0.
static int read_options(const uafd_options* options, uafd_private_place* place) {
    if (options->size < sizeof *options || options->mode > MODE_BITS ||
        (options->parts & ~UAFD_ALL) != 0 ||
        !is_zero((const unsigned char*)(options + 1), options->size - sizeof *options)) {
        return -EINVAL;
    }
    place->directory = options->directory == NULL ? DIRECTORY : options->directory;
    place->mode = options->mode == 0 ? MODE : (mode_t)options->mode;
    return find_group(options->group, &place->group);
}

static int open_socket(uafd_companion* companion, const uafd_private_place* place, unsigned parts) {
    int error = uafd_private_address(&companion->daemon, place->directory, SOCKET_TX);
    if (error == 0) {
        error = uafd_private_socket(&companion->socket);
    }
    if (error == 0 && (parts & UAFD_EVENTS) != 0) {
        error = uafd_private_socket(&companion->probe);
        if (error == 0) {
            error = uafd_private_bind(companion->socket, place, SOCKET_RX);
        }
        companion->bound = error == 0;
    }
    return error;
}

// The lock goes with the descriptor, also when the process dies.
static int claim(int fd) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
        return 0;
    }
    return errno == EWOULDBLOCK ? -EBUSY : -errno;
}

// Opens both ends, so that the end of the daemon is no end of file.
static int open_speaker(uafd_companion* companion, const uafd_private_place* place) {
    const int error =
        uafd_private_open_fifo(place, FIFO_RX, &companion->speaker, &companion->keeper);
    return error == 0 ? claim(companion->speaker) : error;
}

// Keeps only the writing end: while no daemon has the other one, a write fails and leaves nothing
// in the FIFO.
static int open_mic(uafd_companion* companion, const uafd_private_place* place) {
    int reader = -1;
    const int error = uafd_private_open_fifo(place, FIFO_TX, &reader, &companion->mic);
    if (reader >= 0) {
        close(reader);
    }
    return error == 0 ? claim(companion->mic) : error;
}

// Opens the socket first: a daemon that waits for the FIFOs sends as soon as they are open.
static int open_parts(uafd_companion* companion, const uafd_private_place* place, unsigned parts) {
    companion->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int error = companion->wake < 0 ? -errno : open_socket(companion, place, parts);
    if (error == 0 && (parts & UAFD_SOUND) != 0 && (parts & UAFD_EVENTS) == 0) {
        // If this fails, the next app only waits longer for its first message.
        (void)uafd_private_leave_closed_socket(place, SOCKET_RX);
    }
    if (error == 0 && (parts & UAFD_SPEAKER) != 0) {
        error = open_speaker(companion, place);
    }
    if (error == 0 && (parts & UAFD_MIC) != 0) {
        error = open_mic(companion, place);
    }
    return error;
}

static const char* unopened_of(unsigned parts) {
    switch (parts & UAFD_SOUND) {
        case UAFD_SPEAKER:
            return FIFO_TX;
        case UAFD_MIC:
            return FIFO_RX;
        default:
            return NULL;
    }
}

int uafd_companion_open_with(const uafd_options* options, uafd_companion** companion) {
    uafd_private_place place;
    *companion = NULL;
    int error = read_options(options, &place);
    if (error != 0) {
        return error;
    }
    uafd_companion* const opened = calloc(1, sizeof *opened);
    if (opened == NULL) {
        return -ENOMEM;
    }
    opened->speaker = opened->keeper = opened->mic = -1;
    opened->socket = opened->probe = opened->wake = -1;
    opened->group = place.group;
    opened->mode = place.mode;
    opened->unopened = unopened_of(options->parts);
    error = open_parts(opened, &place, options->parts);
    if (error != 0) {
        uafd_companion_close(opened);
        return error;
    }
    *companion = opened;
    return 0;
}

int uafd_companion_open(const char* directory, unsigned parts, uafd_companion** companion) {
    uafd_options options = UAFD_OPTIONS_INIT;
    options.directory = directory;
    options.parts = parts;
    return uafd_companion_open_with(&options, companion);
}

// A daemon that waits has no socket yet, so this never disturbs one that runs. It waits in an open,
// which ends when the other end is open for a moment.
int uafd_companion_release_daemon(uafd_companion* companion) {
    struct sockaddr_un folder = companion->daemon;  // for its path
    if (companion->unopened == NULL || uafd_private_check_unused(&companion->daemon) != 0) {
        return 0;
    }
    *strrchr(folder.sun_path, '/') = '\0';
    const uafd_private_place place = {folder.sun_path, companion->group, companion->mode};
    const int is_reader = strcmp(companion->unopened, FIFO_RX) == 0;
    return uafd_private_touch_fifo(&place, companion->unopened, is_reader);
}

void uafd_companion_close(uafd_companion* companion) {
    if (companion == NULL) {
        return;
    }
    const int descriptors[] = {companion->speaker, companion->keeper, companion->mic,
                               companion->socket,  companion->probe,  companion->wake};
    for (size_t i = 0; i < sizeof descriptors / sizeof *descriptors; ++i) {
        if (descriptors[i] >= 0) {
            close(descriptors[i]);
        }
    }
    free(companion);
}

int uafd_companion_speaker_fd(const uafd_companion* companion) {
    return companion->speaker;
}

int uafd_companion_mic_fd(const uafd_companion* companion) {
    return companion->mic;
}

int uafd_companion_events_fd(const uafd_companion* companion) {
    return companion->bound ? companion->socket : -1;
}

const char* uafd_companion_version(void) {
    return UAFD_COMPANION_VERSION;
}

const char* uafd_companion_error_text(int result) {
    static const struct {
        int error;
        const char* text;
    } texts[] = {
        {EACCES, "a file or the folder is not for this user and group"},
        {EAGAIN, "the other side is full at present"},
        {EBADF, "this part was not opened"},
        {EBUSY, "an app has this part open already"},
        {ECONNREFUSED, "no daemon runs"},
        {EEXIST, "something that is no FIFO has a FIFO's name"},
        {EINTR, "a signal came"},
        {EINVAL, "an option is not understood"},
        {ENAMETOOLONG, "the folder's name is too long"},
        {ENOENT, "there is no such folder"},
        {EPERM, "not allowed: another user's file is in the way, or the group is not this user's"},
        {EPIPE, "the daemon does not read"},
    };
    for (size_t i = 0; i < sizeof texts / sizeof *texts; ++i) {
        if (-result == texts[i].error) {
            return texts[i].text;
        }
    }
    return result < 0 ? strerror(-result) : "no error";
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
