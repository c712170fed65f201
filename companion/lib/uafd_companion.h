// The companion app's side of uafd: what the USB host plays is read here, what the host records is
// written here, and volume, mute and state go both ways. Plain C for any language; the C++ class is
// at the end. It has no thread of its own, never blocks but in uafd_companion_wait, raises no
// signal and logs nothing.
//
// Threads: reading, writing and messages (send, set, next_event) may each be done by a thread of
// its own at the same time; one of them, and all else, by one thread at a time. Counts: any thread.
// Errors: every result below 0 is a negative errno.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include <memory>
#include <optional>

extern "C" {
#endif

// Both ways carry interleaved stereo, signed 16 bits in the machine's byte order.
#define UAFD_RATE 48000           // frames a second
#define UAFD_CHANNELS 2           // samples a frame
#define UAFD_BLOCK_FRAMES 480     // written at once: 10 ms
#define UAFD_BLOCK_NS 10000000LL  // the time of a block

// What uafd_companion_open opens; messages can be sent in any case.
#define UAFD_SOUND 1U   // both FIFOs
#define UAFD_EVENTS 2U  // the socket on which the daemon's messages come
#define UAFD_ALL (UAFD_SOUND | UAFD_EVENTS)

// What uafd_companion_wait found.
#define UAFD_READY_SOUND 1  // frames can be read
#define UAFD_READY_EVENT 2  // a message has come
#define UAFD_READY_BLOCK 4  // the next block is due to be written

typedef struct uafd_companion uafd_companion;

typedef enum uafd_event_type {
    UAFD_USB_STATE = 0,       // 1 configured by the host, 0 disconnected
    UAFD_SPEAKER_STATE = 1,   // 1 the host's sound comes, 0 it does not
    UAFD_MIC_STATE = 2,       // 1 the host records, 0 it does not
    UAFD_SPEAKER_VOLUME = 3,  // signed 16 bits, in the unit of the gadget driver
    UAFD_MIC_VOLUME = 4,      // alike
    UAFD_SPEAKER_MUTE = 5,    // 1 muted, 0 not
    UAFD_MIC_MUTE = 6,        // alike
} uafd_event_type;

typedef struct uafd_event {
    uafd_event_type type;
    int32_t value;
} uafd_event;

// Since the opening.
typedef struct uafd_counts {
    uint64_t frames_read;
    uint64_t blocks_taken;     // by the daemon's FIFO
    uint64_t blocks_refused;   // the FIFO was full: the host does not record, or not so fast
    uint64_t blocks_unread;    // nobody had the FIFO open for reading
    uint64_t events;           // delivered
    uint64_t datagrams_bad;    // of a wrong size or an unknown type: dropped
    uint64_t messages_sent;    // taken by the daemon's socket
    uint64_t messages_failed;  // not
} uafd_counts;

// Opens PARTS in DIRECTORY (null is /tmp, where the daemon looks), in an order in which neither
// side ever waits for the other, whether the daemon runs already or not. FIFOs that are missing are
// made, under the process's umask. The socket's file is taken over when nobody is bound to it. 0,
// or for example -EADDRINUSE (another app has the socket), -EEXIST (what has a FIFO's name is
// none), -EACCES, -ENOMEM; *companion is null then.
int uafd_companion_open(const char* directory, unsigned parts, uafd_companion** companion);

// Null is allowed. The FIFOs and the socket's file stay: a daemon that finds the socket's file
// missing holds its messages back for seconds, also from the app that comes next.
void uafd_companion_close(uafd_companion* companion);

// Descriptors for an event loop, the same from opening to closing; -1 for what was not opened.
// The sound's and the events' are readable when there is something. The microphone's is writable
// when a block fits and in error while the daemon does not read; the daemon takes blocks as fast as
// they come, so a clock must pace them and not this descriptor.
int uafd_companion_speaker_fd(const uafd_companion* companion);
int uafd_companion_mic_fd(const uafd_companion* companion);
int uafd_companion_events_fd(const uafd_companion* companion);

// An event loop for a program that has no other: returns when one of the three is so, as their sum.
// What is not read or taken then is so still: whoever takes no events opens without them.
// The first block is due at once, each later one UAFD_BLOCK_NS after the one before; whoever comes
// more than two blocks late goes on from there. -EINTR after a signal.
int uafd_companion_wait(uafd_companion* companion);

// Reads up to COUNT whole frames (two samples each, left first); returns how many, 0 when there are
// none at present.
int uafd_companion_read(uafd_companion* companion, int16_t* samples, size_t count);

// Writes one block of UAFD_BLOCK_FRAMES frames, whole or not at all; the host hears the left
// sample. From UAFD_MIC_STATE 1 to 0 write one every 10 ms, silence when there is nothing to say:
// without them the daemon cannot stop the stream. At other times a write does no harm. 0; -EAGAIN
// when the FIFO is full, -EPIPE when the daemon does not read: the block is lost.
int uafd_companion_write(uafd_companion* companion, const int16_t* samples);

// Messages to the daemon. 0; -ECONNREFUSED when no daemon runs, -EAGAIN when it takes none.
// The daemon answers sync with the present states: send it after opening. A daemon that starts
// later tells its states by itself.
int uafd_companion_sync(uafd_companion* companion);
int uafd_companion_set_speaker_volume(uafd_companion* companion, int16_t volume);
int uafd_companion_set_speaker_mute(uafd_companion* companion, int muted);

// Takes the oldest event; returns 1, or 0 when there is none.
int uafd_companion_next_event(uafd_companion* companion, uafd_event* event);

void uafd_companion_counts(const uafd_companion* companion, uafd_counts* counts);

#ifdef __cplusplus
}

namespace uafd {

// The functions above on a companion that closes itself; without exceptions. Every operation but
// open wants it open.
class Companion {
  public:
    // What was open before is closed.
    int open(unsigned parts = UAFD_ALL, const char* directory = nullptr) {
        close();
        uafd_companion* opened = nullptr;
        const int error = uafd_companion_open(directory, parts, &opened);
        companion_.reset(opened);
        return error;
    }
    void close() { companion_.reset(); }
    bool isOpen() const { return companion_ != nullptr; }

    int speakerFd() const { return uafd_companion_speaker_fd(get()); }
    int micFd() const { return uafd_companion_mic_fd(get()); }
    int eventsFd() const { return uafd_companion_events_fd(get()); }
    int wait() { return uafd_companion_wait(get()); }

    int read(int16_t* samples, size_t frames) {
        return uafd_companion_read(get(), samples, frames);
    }
    int write(const int16_t* samples) { return uafd_companion_write(get(), samples); }

    int sync() { return uafd_companion_sync(get()); }
    int setSpeakerVolume(int16_t volume) {
        return uafd_companion_set_speaker_volume(get(), volume);
    }
    int setSpeakerMute(bool muted) { return uafd_companion_set_speaker_mute(get(), muted ? 1 : 0); }
    std::optional<uafd_event> nextEvent() {
        uafd_event event{};
        return uafd_companion_next_event(get(), &event) > 0 ? std::optional(event) : std::nullopt;
    }

    uafd_counts counts() const {
        uafd_counts counts{};
        uafd_companion_counts(get(), &counts);
        return counts;
    }
    // For the C functions.
    uafd_companion* get() const { return companion_.get(); }

  private:
    struct Closer {
        void operator()(uafd_companion* companion) const { uafd_companion_close(companion); }
    };
    std::unique_ptr<uafd_companion, Closer> companion_;
};

}  // namespace uafd
#endif
