// SPDX-License-Identifier: Apache-2.0
#define _POSIX_C_SOURCE 200809L

#include "stream.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <sys/eventfd.h>
#include <sys/ioctl.h>

#define FRAME_BYTES (UAFD_CHANNELS * sizeof(int16_t))

// ---- Opening and closing ------------------------------------------------------------------------

// The program's signals are for its own threads.
static int create_thread(uafd_stream* stream) {
    sigset_t all;
    sigset_t mask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mask);
    const int error = pthread_create(&stream->thread, NULL, uafd_stream_thread, stream);
    pthread_sigmask(SIG_SETMASK, &mask, NULL);
    return -error;
}

static void close_descriptors(uafd_stream* stream) {
    const int descriptors[] = {stream->ready, stream->command};
    for (size_t i = 0; i < sizeof descriptors / sizeof *descriptors; ++i) {
        if (descriptors[i] >= 0) {
            close(descriptors[i]);
        }
    }
    uafd_companion_close(stream->companion);
}

int uafd_stream_open(uafd_stream* stream, uafd_companion* companion, int is_capture,
                     const volatile unsigned long* program) {
    memset(stream, 0, sizeof *stream);
    stream->companion = companion;
    stream->is_capture = is_capture;
    stream->program = program;
    stream->owner = getpid();
    stream->boundary = 1;
    stream->is_quiet = 1;
    stream->heard_ns = -STREAM_QUIET_NS;
    stream->ready = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    stream->command = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int error = stream->ready < 0 || stream->command < 0 ? -errno : 0;
    if (error == 0) {
        error = -pthread_mutex_init(&stream->lock, NULL);
    }
    if (error == 0) {
        error = create_thread(stream);
        if (error != 0) {
            pthread_mutex_destroy(&stream->lock);
        }
    }
    if (error != 0) {
        close_descriptors(stream);
    }
    return error;
}

// ---- Commands -----------------------------------------------------------------------------------

// Another process has no thread, and the lock may be held there for ever.
static int take_lock(uafd_stream* stream) {
    if (getpid() != stream->owner) {
        return -EBADF;
    }
    return -pthread_mutex_lock(&stream->lock);
}

static int give_lock(uafd_stream* stream) {
    uafd_stream_signal(stream);
    return -pthread_mutex_unlock(&stream->lock);
}

// The write can only fail because the counter is full, which wakes as well.
static void wake_thread(uafd_stream* stream) {
    const uint64_t once = 1;
    const ssize_t written = write(stream->command, &once, sizeof once);
    (void)written;
}

void uafd_stream_close(uafd_stream* stream) {
    if (take_lock(stream) == 0) {
        stream->is_closing = 1;
        pthread_mutex_unlock(&stream->lock);
        wake_thread(stream);
        pthread_join(stream->thread, NULL);
        pthread_mutex_destroy(&stream->lock);
    }
    close_descriptors(stream);
    free(stream->frames);
    stream->frames = NULL;
}

int uafd_stream_resize(uafd_stream* stream, unsigned long size) {
    int16_t* const frames = size == 0 ? NULL : calloc(size, FRAME_BYTES);
    if (size != 0 && frames == NULL) {
        return -ENOMEM;
    }
    const int error = take_lock(stream);
    if (error != 0) {
        free(frames);
        return error;
    }
    free(stream->frames);
    stream->state = STREAM_STOPPED;
    stream->frames = frames;
    stream->size = size;
    return give_lock(stream);
}

int uafd_stream_set_limits(uafd_stream* stream, unsigned long boundary, unsigned long wake_at,
                           unsigned long stop_at) {
    const int error = take_lock(stream);
    if (error != 0) {
        return error;
    }
    stream->boundary = boundary;
    stream->wake_at = wake_at;
    stream->stop_at = stop_at;
    return give_lock(stream);
}

static void enter(uafd_stream* stream, uafd_stream_state state) {
    stream->state = state;
    stream->block_due_ns = uafd_stream_now() + UAFD_BLOCK_NS;
    wake_thread(stream);
}

int uafd_stream_prepare(uafd_stream* stream) {
    const int error = take_lock(stream);
    if (error != 0) {
        return error;
    }
    stream->state = STREAM_STOPPED;
    stream->position = 0;
    return give_lock(stream);
}

int uafd_stream_start(uafd_stream* stream) {
    const int error = take_lock(stream);
    if (error != 0) {
        return error;
    }
    enter(stream, STREAM_RUNNING);
    return give_lock(stream);
}

int uafd_stream_stop(uafd_stream* stream) {
    const int error = take_lock(stream);
    if (error != 0) {
        return error;
    }
    stream->state = STREAM_STOPPED;
    return give_lock(stream);
}

int uafd_stream_pause(uafd_stream* stream, int is_paused) {
    const int error = take_lock(stream);
    if (error != 0) {
        return error;
    }
    // An xrun that the program does not know of yet stays.
    if (stream->state != STREAM_XRUN) {
        enter(stream, is_paused ? STREAM_PAUSED : STREAM_RUNNING);
    }
    return give_lock(stream);
}

int uafd_stream_drain(uafd_stream* stream, int nonblock) {
    struct pollfd drained = {stream->ready, POLLIN, 0};
    int error = stream->is_capture ? 0 : take_lock(stream);
    if (error != 0 || stream->is_capture) {
        return error;
    }
    if (stream->state == STREAM_STOPPED) {
        enter(stream, STREAM_DRAINING);
    } else if (stream->state == STREAM_RUNNING) {
        stream->state = STREAM_DRAINING;
    }
    uafd_stream_signal(stream);
    // Another thread of the program may stop it.
    while (stream->state == STREAM_DRAINING && !stream->is_signalled && !nonblock) {
        pthread_mutex_unlock(&stream->lock);
        poll(&drained, 1, -1);
        pthread_mutex_lock(&stream->lock);
    }
    error = stream->state == STREAM_DRAINING && !stream->is_signalled ? -EAGAIN : 0;
    (void)give_lock(stream);
    return error;
}

// ---- The program's end of the ring --------------------------------------------------------------

int uafd_stream_copy(uafd_stream* stream, void* samples, unsigned long count) {
    unsigned char* bytes = samples;
    int error = take_lock(stream);
    if (error != 0) {
        return error;
    }
    unsigned long at = *stream->program % stream->size;
    error = stream->state == STREAM_XRUN ? -EPIPE : 0;
    while (error == 0 && count > 0) {
        const unsigned long piece = count < stream->size - at ? count : stream->size - at;
        unsigned char* const frames = (unsigned char*)stream->frames + at * FRAME_BYTES;
        if (stream->is_capture) {
            memcpy(bytes, frames, piece * FRAME_BYTES);
        } else {
            memcpy(frames, bytes, piece * FRAME_BYTES);
        }
        bytes += piece * FRAME_BYTES;
        count -= piece;
        at = 0;
    }
    pthread_mutex_unlock(&stream->lock);
    return error;
}

long uafd_stream_position(uafd_stream* stream) {
    const int error = take_lock(stream);
    if (error != 0) {
        return error;
    }
    const long position = stream->state == STREAM_XRUN ? -EPIPE : (long)stream->position;
    (void)give_lock(stream);
    return position;
}

int uafd_stream_delay(uafd_stream* stream, long* frames) {
    int bytes = 0;
    const int fifo = stream->is_capture ? uafd_companion_speaker_fd(stream->companion)
                                        : uafd_companion_mic_fd(stream->companion);
    int error = take_lock(stream);
    if (error != 0) {
        return error;
    }
    const long available = uafd_stream_available(stream);
    error = stream->state == STREAM_XRUN ? -EPIPE : 0;
    *frames = stream->is_capture ? available : (long)stream->size - available;
    if (ioctl(fifo, FIONREAD, &bytes) == 0) {
        *frames += bytes / (int)FRAME_BYTES;
    }
    (void)give_lock(stream);
    return error;
}

int uafd_stream_is_ready(uafd_stream* stream) {
    const int error = take_lock(stream);
    if (error != 0) {
        return error;
    }
    uafd_stream_signal(stream);
    const int ready = stream->state == STREAM_XRUN ? -EPIPE : stream->is_signalled;
    pthread_mutex_unlock(&stream->lock);
    return ready;
}
