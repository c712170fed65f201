// SPDX-License-Identifier: Apache-2.0
// The companion app's side of uafd: what the USB host plays is read here, what the host records is
// written here, and volume, mute and state go both ways. For C from C11 and C++ from C++98; the
// class for C++17 is in uafd_companion.hpp.
//
// The library has no thread of its own, waits nowhere but in uafd_companion_wait and
// uafd_companion_wait_for, raises no signal and logs nothing.
//
// Threads: reading (read), writing (write), waiting (wait, wait_for) and taking events (next_event)
// are four jobs. Each is for one thread at a time; different jobs may be done at the same time.
// Messages (sync, set_...), wake, counts and the descriptors are for any thread at any time.
// Closing comes when every other call has returned.
//
// Errors: every result below 0 is a negative errno, -EBADF where the part was not opened;
// uafd_companion_error_text puts them into words.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define UAFD_COMPANION_VERSION "1.1.0"  // of this header

// Both ways carry interleaved stereo, signed 16 bits in the machine's byte order.
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

// What is opened, and how it comes into being where it is missing. Begin with UAFD_OPTIONS_INIT:
// the structure may grow.
typedef struct uafd_options {
    size_t size;            // sizeof(uafd_options)
    const char* directory;  // where the daemon looks; null is /tmp
    unsigned parts;
    unsigned mode;      // of FIFOs and socket that are made, whatever the umask; 0 is 0660
    const char* group;  // of these, by name or number; null is the one that new files get
} uafd_options;

#define UAFD_OPTIONS_INIT \
    { sizeof(uafd_options), 0, UAFD_ALL, 0660, 0 }

// Opens the parts, in an order in which neither side ever waits for the other, whether the daemon
// runs already or not. A daemon that starts waits until both FIFOs are open, by one app or by two.
// FIFOs that are there are taken as they are found. The socket is put in the place of one that
// nobody is bound to. An app that opens the sound without the events leaves a closed socket there
// when there is none: the daemon then drops its messages, where it would hold them back for
// seconds, also from the app that comes next.
//
// 0, or a negative errno, with *companion null and nothing open. Among these are
//   -EBUSY   another app, or this one, has a part open already
//   -EEXIST  what has a FIFO's name is no FIFO
//   -EACCES  a FIFO or the directory is not for this process
//   -EPERM   this process is not in the group, or another user's socket file is in the way
//   -EINVAL  an option is not understood, or there is no such group
int uafd_companion_open_with(const uafd_options* options, uafd_companion** companion);

// The same with the other options as they are in UAFD_OPTIONS_INIT.
int uafd_companion_open(const char* directory, unsigned parts, uafd_companion** companion);

// Null is allowed. FIFOs and the socket file stay, for the daemon and the app that comes next.
void uafd_companion_close(uafd_companion* companion);

// ---- Waiting ------------------------------------------------------------------------------------

// An event loop for a program that has no other: returns when something is ready. What is not read
// or taken then is ready still; a block and a wake are told once. The first block is due at once,
// each later one UAFD_BLOCK_NS after the one before; whoever comes more than two blocks late goes
// on from there. -EINTR after a signal.
int uafd_companion_wait(uafd_companion* companion);

// The same for no longer than TIMEOUT milliseconds, after which it returns 0; below 0 is for ever.
int uafd_companion_wait_for(uafd_companion* companion, int timeout_ms);

// Ends the wait under way, or else the next one. Also for signal handlers.
void uafd_companion_wake(uafd_companion* companion);

// Descriptors for an event loop of the program's own, the same from opening to closing; -1 for what
// was not opened. The speaker's and the events' are readable when there is something. The
// microphone's is writable when a block fits and in error while the daemon does not read; the
// daemon takes blocks as fast as they come, so a clock must pace them and not this descriptor.
int uafd_companion_speaker_fd(const uafd_companion* companion);
int uafd_companion_mic_fd(const uafd_companion* companion);
int uafd_companion_events_fd(const uafd_companion* companion);

// ---- Sound --------------------------------------------------------------------------------------

// Reads up to COUNT whole frames (two samples each, left first); returns how many, 0 when there are
// none at present.
int uafd_companion_read(uafd_companion* companion, int16_t* samples, size_t count);

// Writes one block of UAFD_BLOCK_FRAMES frames, whole or not at all; the host hears the left
// sample. Write one every 10 ms from UAFD_MIC_STATE 1 to 0. While the microphone is open and
// nothing is written the host hears silence, and nothing twice. Other writes do no harm.
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
    UAFD_DAEMON_STATE = 7     // 1 a daemon runs, 0 none does: found out by the library
} uafd_event_type;

typedef struct uafd_event {
    uafd_event_type type;
    int32_t value;
} uafd_event;

// Takes the oldest event; returns 1, or 0 when there is none.
//
// Every state is 0 at first. UAFD_DAEMON_STATE 1 comes as soon as a daemon is there; the library
// asks it for its states by itself, which follow. When the daemon has ended, UAFD_DAEMON_STATE 0
// comes and then a 0 for each state that was last told as 1; a daemon that was restarted meanwhile
// comes as an end and a beginning. (A daemon that tells of no configured USB tells nothing of the
// streams: both are 0.) Volumes and mutes stay as told; a daemon that starts tells them again.
//
// The system does not tell of a daemon's end. This function looks, whenever it has nothing else,
// whether the daemon's socket still takes connections, and waiting looks every 200 ms. So an event
// loop of the program's own calls it that often too, besides when the descriptor is readable.
int uafd_companion_next_event(uafd_companion* companion, uafd_event* event);

// ---- Messages to the daemon ---------------------------------------------------------------------

// 0; -ECONNREFUSED when no daemon runs, -EAGAIN when it takes none at present, -EACCES when it does
// not take this process's. Sync asks for the states; the library does that by itself where an app
// has to.
int uafd_companion_sync(uafd_companion* companion);
int uafd_companion_set_speaker_volume(uafd_companion* companion, int16_t volume);
int uafd_companion_set_speaker_mute(uafd_companion* companion, int muted);

// ---- About --------------------------------------------------------------------------------------

// Since the opening.
typedef struct uafd_counts {
    uint64_t frames_read;
    uint64_t blocks_taken;     // by the daemon's FIFO
    uint64_t blocks_refused;   // the FIFO was full: the host does not record, or not so fast
    uint64_t blocks_unread;    // nobody had the FIFO open for reading
    uint64_t events;           // delivered
    uint64_t datagrams_bad;    // dropped: a wrong size, an unknown type, a daemon that was gone
    uint64_t messages_sent;    // taken by the daemon's socket, the library's own among them
    uint64_t messages_failed;  // not taken
} uafd_counts;

void uafd_companion_counts(const uafd_companion* companion, uafd_counts* counts);

// What a result below 0 means for an app, in English, without a full stop. Valid until the thread's
// next call.
const char* uafd_companion_error_text(int result);

// Of the library that runs: UAFD_COMPANION_VERSION as it was compiled.
const char* uafd_companion_version(void);

#ifdef __cplusplus
}
#endif
