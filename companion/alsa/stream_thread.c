// SPDX-License-Identifier: Apache-2.0
#define _POSIX_C_SOURCE 200809L

#include <poll.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "stream.h"

#define LATE_BLOCKS_MAX 2
#define NS_PER_MS 1000000LL
#define NS_PER_SECOND 1000000000LL
#define READ_FRAMES 1024        // all that the FIFO holds
#define RELEASE_NS 200000000LL  // between two looks for a daemon that waits

int64_t uafd_stream_now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NS_PER_SECOND + now.tv_nsec;
}

// How far the thread is ahead of the program. In a playback that is not to stop it may be so.
static long lead(const uafd_stream* stream) {
    const unsigned long program = __atomic_load_n(stream->program, __ATOMIC_ACQUIRE);
    const long half = (long)(stream->boundary / 2);
    long frames = (long)(stream->position - program);
    if (frames > half) {
        frames -= (long)stream->boundary;
    } else if (frames < -half) {
        frames += (long)stream->boundary;
    }
    return frames;
}

long uafd_stream_available(const uafd_stream* stream) {
    return lead(stream) + (stream->is_capture ? 0 : (long)stream->size);
}

static int needs_program(const uafd_stream* stream) {
    switch (stream->state) {
        case STREAM_XRUN:
            return 1;
        case STREAM_DRAINING:
            return lead(stream) >= 0;
        default:
            return uafd_stream_available(stream) >= (long)stream->wake_at;
    }
}

void uafd_stream_signal(uafd_stream* stream) {
    const int is_ready = stream->size != 0 && needs_program(stream);
    uint64_t count = 1;
    if (is_ready == stream->is_signalled) {
        return;
    }
    // Neither can fail: the counter is 1 while it is signalled, and otherwise 0.
    const ssize_t done = is_ready ? write(stream->ready, &count, sizeof count)
                                  : read(stream->ready, &count, sizeof count);
    if (done == (ssize_t)sizeof count) {
        stream->is_signalled = is_ready;
    }
}

static void advance(uafd_stream* stream, unsigned long count) {
    stream->position = (stream->position + count) % stream->boundary;
}

// ---- Capture ------------------------------------------------------------------------------------

// Puts frames into the ring, those that are `null` as silence. More than fit replace older ones.
static void put(uafd_stream* stream, const int16_t* samples, unsigned long count) {
    while (count > 0 && stream->state == STREAM_RUNNING) {
        const unsigned long at = stream->position % stream->size;
        const unsigned long piece = count < stream->size - at ? count : stream->size - at;
        int16_t* const frames = stream->frames + at * UAFD_CHANNELS;
        const size_t bytes = piece * UAFD_CHANNELS * sizeof *frames;
        if (samples == NULL) {
            memset(frames, 0, bytes);
        } else {
            memcpy(frames, samples, bytes);
            samples += piece * UAFD_CHANNELS;
        }
        count -= piece;
        advance(stream, piece);
        if (uafd_stream_available(stream) >= (long)stream->stop_at) {
            stream->state = STREAM_XRUN;
        }
    }
}

// Without sound nobody knows whether the host is silent or a daemon waits for the other FIFO.
static void release_daemon(uafd_stream* stream, int64_t now) {
    if (now >= stream->release_due_ns) {
        stream->release_due_ns = now + RELEASE_NS;
        (void)uafd_companion_release_daemon(stream->companion);
    }
}

// A host that goes off takes the time of STREAM_QUIET_NS out of the recording. To fill it up would
// need a ring with room for it.
static void capture(uafd_stream* stream, int64_t now) {
    int16_t samples[READ_FRAMES * UAFD_CHANNELS];
    int count;
    while ((count = uafd_companion_read(stream->companion, samples, READ_FRAMES)) > 0) {
        stream->heard_ns = now;
        put(stream, samples, (unsigned long)count);
    }
    const int was_quiet = stream->is_quiet;
    stream->is_quiet = now - stream->heard_ns >= STREAM_QUIET_NS;
    if (!stream->is_quiet || stream->state != STREAM_RUNNING) {
        return;
    }
    if (!was_quiet) {
        stream->block_due_ns = now + UAFD_BLOCK_NS;
    }
    for (; stream->state == STREAM_RUNNING && now >= stream->block_due_ns;
         stream->block_due_ns += UAFD_BLOCK_NS) {
        put(stream, NULL, UAFD_BLOCK_FRAMES);
    }
    release_daemon(stream, now);
}

// ---- Playback -----------------------------------------------------------------------------------

// Takes a block out of the ring, silence after the last frame.
static void take(uafd_stream* stream, int16_t* block) {
    const long filled = -lead(stream);
    const unsigned long count =
        filled < UAFD_BLOCK_FRAMES ? (unsigned long)(filled < 0 ? 0 : filled) : UAFD_BLOCK_FRAMES;
    const unsigned long at = stream->position % stream->size;
    const unsigned long piece = count < stream->size - at ? count : stream->size - at;
    memset(block, 0, UAFD_BLOCK_FRAMES * UAFD_CHANNELS * sizeof *block);
    memcpy(block, stream->frames + at * UAFD_CHANNELS, piece * UAFD_CHANNELS * sizeof *block);
    memcpy(block + piece * UAFD_CHANNELS, stream->frames,
           (count - piece) * UAFD_CHANNELS * sizeof *block);
    // A drained ring is empty; a stream that is not to stop goes on without frames.
    advance(stream, stream->state == STREAM_DRAINING ? count : UAFD_BLOCK_FRAMES);
}

static void play_block(uafd_stream* stream, int64_t now) {
    int16_t block[UAFD_BLOCK_FRAMES * UAFD_CHANNELS];
    if (stream->state == STREAM_DRAINING && lead(stream) >= 0) {
        return;
    }
    if (stream->state == STREAM_RUNNING &&
        uafd_stream_available(stream) + UAFD_BLOCK_FRAMES > (long)stream->stop_at) {
        stream->state = STREAM_XRUN;
        return;
    }
    take(stream, block);
    if (uafd_companion_write(stream->companion, block) < 0) {
        release_daemon(stream, now);
    }
}

static int is_playing(const uafd_stream* stream) {
    return stream->state == STREAM_RUNNING || stream->state == STREAM_DRAINING;
}

static void play(uafd_stream* stream, int64_t now) {
    if (now > stream->block_due_ns + LATE_BLOCKS_MAX * (int64_t)UAFD_BLOCK_NS) {
        stream->block_due_ns = now;
    }
    for (; is_playing(stream) && now >= stream->block_due_ns;
         stream->block_due_ns += UAFD_BLOCK_NS) {
        play_block(stream, now);
    }
}

// ---- The thread ---------------------------------------------------------------------------------

// Until something is due, in milliseconds rounded up; -1 for ever.
static int timeout_ms(const uafd_stream* stream, int64_t now) {
    int64_t due = stream->block_due_ns;
    if (!is_playing(stream)) {
        return -1;
    }
    if (stream->is_capture && !stream->is_quiet) {
        due = stream->heard_ns + STREAM_QUIET_NS;
    }
    return due <= now ? 0 : (int)((due - now - 1) / NS_PER_MS + 1);
}

void* uafd_stream_thread(void* argument) {
    uafd_stream* const stream = argument;
    struct pollfd sources[] = {{uafd_companion_speaker_fd(stream->companion), POLLIN, 0},
                               {stream->command, POLLIN, 0}};
    uint64_t commands;
    pthread_mutex_lock(&stream->lock);
    while (!stream->is_closing) {
        const int64_t now = uafd_stream_now();
        if (stream->is_capture) {
            capture(stream, now);
        } else {
            play(stream, now);
        }
        uafd_stream_signal(stream);
        const int timeout = timeout_ms(stream, now);
        pthread_mutex_unlock(&stream->lock);
        poll(sources, 2, timeout);
        if (sources[1].revents != 0 && read(stream->command, &commands, sizeof commands) < 0) {
            sources[1].revents = 0;
        }
        pthread_mutex_lock(&stream->lock);
    }
    pthread_mutex_unlock(&stream->lock);
    return NULL;
}
