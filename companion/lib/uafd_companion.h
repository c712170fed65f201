// SPDX-License-Identifier: Apache-2.0
// The companion app's side of uafd: it reads what the USB host plays, writes what the host records,
// receives and sends volume and mute, and receives states. For C from C11 and C++ from C++98; the
// class for C++17 is in uafd_companion.hpp.
//
// The library has no thread of its own, waits nowhere but in uafd_companion_wait and
// uafd_companion_wait_for, raises no signal and logs nothing.
//
// Threads: reading (read), writing (write), waiting (wait, wait_for) and taking events (next_event)
// are four jobs. Each may be done by one thread at a time; different jobs at the same time. Any
// thread may send messages (sync, set_...), wake, and get counts and descriptors at any time. Close
// only when every other call has returned.
//
// Errors: every result below 0 is a negative errno, -EBADF when the part was not opened;
// uafd_companion_error_text puts them into words.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define UAFD_COMPANION_VERSION "1.1.0"  // of this header

// Both directions carry interleaved stereo, signed 16 bits in the machine's byte order.
#define UAFD_RATE 48000         // frames a second
#define UAFD_CHANNELS 2         // samples a frame
#define UAFD_BLOCK_FRAMES 480   // written at once: 10 ms
#define UAFD_BLOCK_NS 10000000  // the time of a block

// Parts that can be opened, each by one app at a time. Messages can be sent without any.
#define UAFD_SPEAKER 1U                       // the FIFO with what the host plays
#define UAFD_EVENTS 2U                        // the socket to which the daemon tells its states
#define UAFD_MIC 4U                           // the FIFO with what the host records
#define UAFD_SOUND (UAFD_SPEAKER | UAFD_MIC)  // both FIFOs
#define UAFD_ALL (UAFD_SOUND | UAFD_EVENTS)

// What uafd_companion_wait found, added up.
#define UAFD_READY_SOUND 1  // frames can be read
#define UAFD_READY_EVENT 2  // uafd_companion_next_event has news
#define UAFD_READY_BLOCK 4  // the next block is due to be written
#define UAFD_READY_WAKE 8   // uafd_companion_wake was called

typedef struct uafd_companion uafd_companion;

// ---- Opening and closing ------------------------------------------------------------------------

// Where FIFOs and socket are, and how missing ones are made. Initialise it with UAFD_OPTIONS_INIT:
// the structure may grow.
typedef struct uafd_options {
    size_t size;            // sizeof(uafd_options)
    const char* directory;  // where the daemon looks; null is /tmp
    unsigned parts;         // to be opened: a sum of UAFD_SPEAKER, UAFD_EVENTS and UAFD_MIC
    unsigned mode;          // of FIFOs and socket that are made, whatever the umask; 0: 0660
    const char* group;      // of these, by name or number; null: the default for new files
} uafd_options;

#define UAFD_OPTIONS_INIT \
    { sizeof(uafd_options), 0, UAFD_ALL, 0660, 0 }

// Opens the parts in an order in which neither side ever waits for the other, whether the daemon
// already runs or not. At its start the daemon waits until both FIFOs are open, by one app or by
// two. Existing FIFOs are used as they are. The socket replaces one that nobody is bound to. If
// speaker or microphone is opened without the events and there is no socket, a closed socket is
// left there: the daemon then drops its messages instead of keeping them for the next app.
//
// 0, or a negative errno, with *companion null and nothing open. Among these are
//   -EBUSY   another app, or this one, has a part open already
//   -EEXIST  a file with a FIFO's name is no FIFO
//   -EACCES  this process may not use a FIFO or the directory
//   -EPERM   this process is not in the group, or another user's socket file is in the way
//   -EINVAL  an option is not understood, or there is no such group
int uafd_companion_open_with(const uafd_options* options, uafd_companion** companion);

// The same with the other options as they are in UAFD_OPTIONS_INIT.
int uafd_companion_open(const char* directory, unsigned parts, uafd_companion** companion);

// Lets a daemon start that waits for both FIFOs: if no daemon runs, opens for a moment the FIFO
// that this app has not opened, and makes it if it is missing. For an app that opened the speaker
// or the microphone alone and cannot know whether there is another app. Call it five times a second
// while nothing is heard, or while writing fails with -EPIPE. 0 or a negative errno.
int uafd_companion_release_daemon(uafd_companion* companion);

// Closes everything and frees the companion, which may be null. FIFOs and the socket file stay, for
// the daemon and the next app.
void uafd_companion_close(uafd_companion* companion);

// ---- Waiting ------------------------------------------------------------------------------------

// Waits until something is ready, for a program without its own event loop; returns the sum of the
// UAFD_READY numbers. Sound and events stay ready until they are read or taken; a block and a wake
// are reported once. The first block is due at once, each later one UAFD_BLOCK_NS after the one
// before; when the program is more than two blocks late, the due times start again from now.
// -EINTR after a signal.
int uafd_companion_wait(uafd_companion* companion);

// The same for at most timeout_ms milliseconds, after which it returns 0; below 0 is for ever.
int uafd_companion_wait_for(uafd_companion* companion, int timeout_ms);

// Ends the present wait, or if there is none the next one. Signal handlers may call it.
void uafd_companion_wake(uafd_companion* companion);

// Descriptors for a program's own event loop. They do not change between opening and closing; -1
// for a part that was not opened. The speaker's and the events' are readable when there is
// something to read. The microphone's is writable when a block fits, and in error while the daemon
// does not read. The daemon takes blocks as fast as they come, so pace them by a clock and not by
// this descriptor.
int uafd_companion_speaker_fd(const uafd_companion* companion);
int uafd_companion_mic_fd(const uafd_companion* companion);
int uafd_companion_events_fd(const uafd_companion* companion);

// ---- Sound --------------------------------------------------------------------------------------

// Reads up to `count` whole frames (two samples each, left first) into `samples`; returns how many,
// 0 when there are none at present.
int uafd_companion_read(uafd_companion* companion, int16_t* samples, size_t count);

// Writes one block of UAFD_BLOCK_FRAMES frames, whole or not at all; the host hears the left
// sample. Write one every 10 ms from UAFD_MIC_STATE 1 to 0. When nothing is written meanwhile, the
// host hears silence. Writes at other times do no harm.
// 0; -EAGAIN when the FIFO is full, -EPIPE when the daemon does not read: the block is lost.
int uafd_companion_write(uafd_companion* companion, const int16_t* samples);

// ---- Events -------------------------------------------------------------------------------------

typedef enum uafd_event_type {
    UAFD_USB_STATE = 0,       // 1 configured by the host, 0 disconnected
    UAFD_SPEAKER_STATE = 1,   // 1 the host's sound comes, 0 it does not
    UAFD_MIC_STATE = 2,       // 1 the host records, 0 it does not
    UAFD_SPEAKER_VOLUME = 3,  // signed 16 bits, in the unit of the gadget driver
    UAFD_MIC_VOLUME = 4,      // signed 16 bits, in the unit of the gadget driver
    UAFD_SPEAKER_MUTE = 5,    // 1 muted, 0 not
    UAFD_MIC_MUTE = 6,        // 1 muted, 0 not
    UAFD_DAEMON_STATE = 7     // 1 a daemon runs, 0 none does; from the library itself
} uafd_event_type;

typedef struct uafd_event {
    uafd_event_type type;
    int32_t value;
} uafd_event;

// Takes the oldest event; returns 1, or 0 when there is none.
// Every state is 0 at first. UAFD_DAEMON_STATE 1 comes as soon as a daemon runs; the library asks
// it for its states, which follow. When the daemon has ended, UAFD_DAEMON_STATE 0 comes and then a
// 0 for each state whose last event was 1; a restart is reported as an end and a start. (While the
// USB is not configured, the daemon reports no stream states: both are 0.) Volumes and mutes keep
// their last values; a daemon that starts reports them again.
//
// The system does not report the daemon's end. So when this function has no other event, it checks
// whether the daemon's socket still takes connections; waiting does so every 200 ms. A program's
// own event loop must therefore call it every 200 ms, and when the descriptor is readable.
int uafd_companion_next_event(uafd_companion* companion, uafd_event* event);

// ---- Messages to the daemon ---------------------------------------------------------------------

// 0; -ECONNREFUSED when no daemon runs, -EAGAIN when its socket is full, -EACCES when this process
// may not send to it. sync asks for the states; the library does that itself whenever it is needed.
// A volume is in the unit of the gadget driver; muted is 0 or not 0.
int uafd_companion_sync(uafd_companion* companion);
int uafd_companion_set_speaker_volume(uafd_companion* companion, int16_t volume);
int uafd_companion_set_speaker_mute(uafd_companion* companion, int muted);

// ---- About --------------------------------------------------------------------------------------

// Counted since the opening.
typedef struct uafd_counts {
    uint64_t frames_read;      // returned by uafd_companion_read
    uint64_t blocks_taken;     // by the daemon's FIFO
    uint64_t blocks_refused;   // the FIFO was full: the host does not record, or more slowly
    uint64_t blocks_unread;    // nobody had the FIFO open for reading
    uint64_t events;           // delivered
    uint64_t datagrams_bad;    // dropped: a wrong size, an unknown type, a daemon that was gone
    uint64_t messages_sent;    // taken by the daemon's socket, including the library's own
    uint64_t messages_failed;  // not taken
} uafd_counts;

// Copies the counts; resets nothing.
void uafd_companion_counts(const uafd_companion* companion, uafd_counts* counts);

// The meaning of a result below 0, in English, without a full stop. Valid until the thread's next
// call.
const char* uafd_companion_error_text(int result);

// The version of the library in use: UAFD_COMPANION_VERSION when it was compiled.
const char* uafd_companion_version(void);

#ifdef __cplusplus
}
#endif
