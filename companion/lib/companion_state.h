// What an open companion is made of: inside of the library. Each thread of the public header's rule
// has fields of its own; the counters alone are read by others.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <sys/un.h>

#include "companion/lib/uafd_companion.h"

#define FRAME_BYTES (UAFD_CHANNELS * sizeof(int16_t))

struct uafd_companion {
    int speaker;                // the FIFO that the daemon writes, open for reading
    int keeper;                 // the same for writing: a daemon that goes is no end of file
    int mic;                    // the FIFO that the daemon reads, open for writing
    int socket;                 // sends; receives when it is bound
    int bound;                  // whether it is
    struct sockaddr_un daemon;  // where messages go
    unsigned char partial[FRAME_BYTES];  // of the speaker's next frame, what has come
    size_t partial_bytes;
    int64_t block_due_ns;  // CLOCK_MONOTONIC; 0 is at once
    uafd_counts counts;
};

// Nothing is ordered by the counters.
// NOLINTNEXTLINE(readability-non-const-parameter): the builtin writes it
static inline void count(uint64_t* counter, uint64_t more) {
    __atomic_fetch_add(counter, more, __ATOMIC_RELAXED);
}
