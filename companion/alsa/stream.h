// SPDX-License-Identifier: Apache-2.0
// One direction of sound between a ring buffer, from which the program takes frames or into which
// it puts them, and the daemon's FIFO. A thread of the stream's own moves the ring's other end, as
// the hardware does on a sound card:
//
// Playback (the host hears it): a block every UAFD_BLOCK_NS by CLOCK_MONOTONIC, the first one
// UAFD_BLOCK_NS after the start: by then a card, too, has used up a block. A block that the daemon
// does not take is lost, as in a microphone to which nobody listens. Capture (the host plays it):
// frames as they come. When none has come for STREAM_QUIET_NS, silence at the clock's rate, until
// some come again. Between openings and closing everything is read, also while the stream does not
// run: the daemon would wait for a reader that is late.
//
// The thread exists from opening to closing. Positions count frames and wrap at `boundary`, a
// multiple of the ring's size. Functions are for one thread of the program at a time. In a child
// process, after fork, there is no such thread: there only closing has an effect, on the child's
// descriptors alone, and the others return -EBADF.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <sys/types.h>

#include "uafd_companion.h"

#define STREAM_QUIET_NS 40000000LL  // eight of the daemon's periods

typedef enum uafd_stream_state {
    STREAM_STOPPED,
    STREAM_RUNNING,
    STREAM_PAUSED,
    STREAM_DRAINING,  // playback runs until the ring is empty
    STREAM_XRUN       // stopped because the ring was full (capture) or empty (playback)
} uafd_stream_state;

typedef struct uafd_stream {
    // From opening to closing.
    uafd_companion* companion;
    int is_capture;
    const volatile unsigned long* program;  // the program's position
    pid_t owner;                            // the process in which the thread is
    pthread_t thread;
    int ready;    // an eventfd: readable while the program has something to do
    int command;  // an eventfd: the thread looks at what has changed

    pthread_mutex_t lock;  // guards the rest; held for microseconds
    int is_closing;
    uafd_stream_state state;
    int is_signalled;        // `ready` is readable
    int16_t* frames;         // the ring
    unsigned long size;      // of the ring, in frames
    unsigned long boundary;  // where positions wrap
    unsigned long wake_at;   // frames available to the program that make it ready
    unsigned long stop_at;   // frames available that are an xrun
    unsigned long position;  // the thread's

    // Times of CLOCK_MONOTONIC.
    int64_t block_due_ns;    // the next block, or the next silence
    int64_t heard_ns;        // when frames last came
    int64_t release_due_ns;  // when a waiting daemon is next released
    int is_quiet;            // nothing has come for STREAM_QUIET_NS
} uafd_stream;

// Takes over the companion, also when it fails. Returns 0 or a negative errno, as all functions do.
int uafd_stream_open(uafd_stream* stream, uafd_companion* companion, int is_capture,
                     const volatile unsigned long* program);
void uafd_stream_close(uafd_stream* stream);

// Gives a stopped stream a ring of this size; 0 frees it.
int uafd_stream_resize(uafd_stream* stream, unsigned long size);
int uafd_stream_set_limits(uafd_stream* stream, unsigned long boundary, unsigned long wake_at,
                           unsigned long stop_at);

// Stops; both positions are 0 from here on.
int uafd_stream_prepare(uafd_stream* stream);
int uafd_stream_start(uafd_stream* stream);
int uafd_stream_stop(uafd_stream* stream);
int uafd_stream_pause(uafd_stream* stream, int is_paused);
// Waits until the daemon was given all frames; -EAGAIN if `nonblock` and that is not yet so.
int uafd_stream_drain(uafd_stream* stream, int nonblock);

// Copies frames between the program and the ring at the program's position, which stays.
int uafd_stream_copy(uafd_stream* stream, void* samples, unsigned long count);

// The thread's position; -EPIPE after an xrun.
long uafd_stream_position(uafd_stream* stream);
// Frames until the sound that the program handles next is the daemon's, or was.
int uafd_stream_delay(uafd_stream* stream, long* frames);
// 1 if the program has something to do, 0 if not; -EPIPE after an xrun. Afterwards `ready` tells
// it.
int uafd_stream_is_ready(uafd_stream* stream);

// ---- Internal: what the thread and the calls of the program share
// ---------------------------------
//
// The lock is held wherever a stream is given.

void* uafd_stream_thread(void* argument);  // takes the stream, and its lock
int64_t uafd_stream_now(void);
// Frames with which the program can do something: to be taken, or room for them.
long uafd_stream_available(const uafd_stream* stream);
// Makes `ready` readable, or not.
void uafd_stream_signal(uafd_stream* stream);
