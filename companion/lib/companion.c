// Opening, waiting and closing.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <sys/socket.h>
#include <sys/stat.h>

#include "companion/lib/companion_state.h"

#define DIRECTORY "/tmp"
#define FIFO_RX "usbAudioFifoRx"
#define FIFO_TX "usbAudioFifoTx"
#define SOCKET_RX "usbAudioUdsIpcRx"
#define SOCKET_TX "usbAudioUdsIpcTx"

#define LATE_BLOCKS_MAX 2
#define NS_PER_MS 1000000LL
#define NS_PER_SECOND 1000000000LL

static int fill_path(char* path, size_t size, const char* directory, const char* name) {
    const int length = snprintf(path, size, "%s/%s", directory, name);
    return length < 0 || (size_t)length >= size ? -ENAMETOOLONG : 0;
}

static int fill_address(struct sockaddr_un* address, const char* directory, const char* name) {
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    return fill_path(address->sun_path, sizeof address->sun_path, directory, name);
}

static int datagram_socket(void) {
    return socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// 0 when nobody lives behind the address: there is nothing, or a file that an app left behind.
static int check_unused(const struct sockaddr_un* address) {
    const int probe = datagram_socket();
    if (probe < 0) {
        return -errno;
    }
    const int result = connect(probe, (const struct sockaddr*)address, sizeof *address);
    const int error = result == 0 || errno == EPERM ? EADDRINUSE : errno;
    close(probe);
    return error == ENOENT || error == ECONNREFUSED ? 0 : -error;
}

// Binds beside the name and then moves there: the name is never missing in between, which would
// make the daemon wait for seconds.
static int bind_socket(uafd_companion* companion, const char* directory) {
    struct sockaddr_un address;
    struct sockaddr_un beside;
    int error = fill_address(&address, directory, SOCKET_RX);
    if (error == 0) {
        error = fill_address(&beside, directory, SOCKET_RX ".new");
    }
    if (error == 0) {
        error = check_unused(&address);
    }
    if (error != 0) {
        return error;
    }
    unlink(beside.sun_path);
    if (bind(companion->socket, (const struct sockaddr*)&beside, sizeof beside) != 0) {
        return -errno;
    }
    if (rename(beside.sun_path, address.sun_path) != 0) {
        error = -errno;
        unlink(beside.sun_path);
        return error;
    }
    companion->bound = 1;
    return 0;
}

static int open_socket(uafd_companion* companion, const char* directory, unsigned parts) {
    companion->socket = datagram_socket();
    if (companion->socket < 0) {
        return -errno;
    }
    const int error = fill_address(&companion->daemon, directory, SOCKET_TX);
    return error == 0 && (parts & UAFD_EVENTS) != 0 ? bind_socket(companion, directory) : error;
}

// Both ends at once: the reading end opens without a partner, the writing end then has one.
static int open_fifo(const char* directory, const char* name, int* reader, int* writer) {
    char path[sizeof((struct sockaddr_un*)0)->sun_path];
    struct stat found;
    const int error = fill_path(path, sizeof path, directory, name);
    if (error != 0) {
        return error;
    }
    if (mkfifo(path, 0666) != 0 && errno != EEXIST) {
        return -errno;
    }
    if (stat(path, &found) != 0) {
        return -errno;
    }
    if (!S_ISFIFO(found.st_mode)) {
        return -EEXIST;
    }
    *reader = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (*reader < 0) {
        return -errno;
    }
    *writer = open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    return *writer < 0 ? -errno : 0;
}

// Of the microphone's FIFO the writing end alone is kept: a daemon that opens the other one does
// not wait, and as long as none has, a write says so and leaves nothing behind.
static int open_fifos(uafd_companion* companion, const char* directory) {
    int mic_reader = -1;
    int error = open_fifo(directory, FIFO_RX, &companion->speaker, &companion->keeper);
    if (error == 0) {
        error = open_fifo(directory, FIFO_TX, &mic_reader, &companion->mic);
    }
    if (mic_reader >= 0) {
        close(mic_reader);
    }
    return error;
}

// The socket comes first: a daemon that waits for the FIFOs sends as soon as it has them.
int uafd_companion_open(const char* directory, unsigned parts, uafd_companion** companion) {
    *companion = NULL;
    uafd_companion* opened = calloc(1, sizeof *opened);
    if (opened == NULL) {
        return -ENOMEM;
    }
    opened->speaker = opened->keeper = opened->mic = opened->socket = -1;
    directory = directory == NULL ? DIRECTORY : directory;
    int error = open_socket(opened, directory, parts);
    if (error == 0 && (parts & UAFD_SOUND) != 0) {
        error = open_fifos(opened, directory);
    }
    if (error != 0) {
        uafd_companion_close(opened);
        return error;
    }
    *companion = opened;
    return 0;
}

void uafd_companion_close(uafd_companion* companion) {
    if (companion == NULL) {
        return;
    }
    const int descriptors[] = {companion->speaker, companion->keeper, companion->mic,
                               companion->socket};
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

static int64_t now_ns(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

// Until the block is due, in milliseconds rounded up; -1, for ever, when there are no blocks.
static int block_timeout(const uafd_companion* companion) {
    if (companion->mic < 0) {
        return -1;
    }
    const int64_t left = companion->block_due_ns - now_ns();
    return left > 0 ? (int)((left + NS_PER_MS - 1) / NS_PER_MS) : 0;
}

static int take_due_block(uafd_companion* companion) {
    const int64_t now = now_ns();
    if (companion->mic < 0 || now < companion->block_due_ns) {
        return 0;
    }
    const int64_t late = now - companion->block_due_ns;
    const int64_t base = late > LATE_BLOCKS_MAX * UAFD_BLOCK_NS ? now : companion->block_due_ns;
    companion->block_due_ns = base + UAFD_BLOCK_NS;
    return UAFD_READY_BLOCK;
}

int uafd_companion_wait(uafd_companion* companion) {
    struct pollfd sources[] = {{companion->speaker, POLLIN, 0},
                               {uafd_companion_events_fd(companion), POLLIN, 0}};
    for (;;) {
        if (poll(sources, 2, block_timeout(companion)) < 0) {
            return -errno;
        }
        const int ready = (sources[0].revents != 0 ? UAFD_READY_SOUND : 0) |
                          (sources[1].revents != 0 ? UAFD_READY_EVENT : 0) |
                          take_due_block(companion);
        if (ready != 0) {
            return ready;
        }
    }
}

void uafd_companion_counts(const uafd_companion* companion, uafd_counts* counts) {
    const uint64_t* from = (const uint64_t*)&companion->counts;
    uint64_t* to = (uint64_t*)counts;
    for (size_t i = 0; i < sizeof *counts / sizeof *to; ++i) {
        to[i] = __atomic_load_n(&from[i], __ATOMIC_RELAXED);
    }
}
