// SPDX-License-Identifier: Apache-2.0
// The least that an app over the library does: `minimal_app record` writes what the host plays to
// standard output, `minimal_app play` lets the host record standard input.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "uafd_companion.h"

#define FRAME_BYTES (UAFD_CHANNELS * sizeof(int16_t))

#define RELEASE_MS 200

// A daemon that starts waits until both FIFOs have been opened.
static int record(uafd_companion* companion) {
    int16_t samples[UAFD_CHANNELS * UAFD_BLOCK_FRAMES];
    int count = 0;
    while (count >= 0) {
        count = uafd_companion_wait_for(companion, RELEASE_MS);
        if (count == 0) {
            (void)uafd_companion_release_daemon(companion);
        } else if (count > 0) {
            count = uafd_companion_read(companion, samples, UAFD_BLOCK_FRAMES);
        }
        if (count > 0 && write(STDOUT_FILENO, samples, (size_t)count * FRAME_BYTES) < 0) {
            return 1;
        }
    }
    return 1;
}

static int play(uafd_companion* companion) {
    int16_t block[UAFD_CHANNELS * UAFD_BLOCK_FRAMES];
    int ready = 0;
    while (ready >= 0) {
        ready = uafd_companion_wait(companion);
        if (ready > 0 && (ready & UAFD_READY_BLOCK) != 0) {
            if (read(STDIN_FILENO, block, sizeof block) != (ssize_t)sizeof block) {
                return 0;
            }
            if (uafd_companion_write(companion, block) < 0) {
                (void)uafd_companion_release_daemon(companion);
            }
        }
    }
    return 1;
}

int main(int argc, char** argv) {
    const int records = argc == 2 && strcmp(argv[1], "record") == 0;
    uafd_companion* companion = NULL;
    const int error = uafd_companion_open(NULL, records ? UAFD_SPEAKER : UAFD_MIC, &companion);
    if (error < 0) {
        fprintf(stderr, "%s\n", uafd_companion_error_text(error));
        return 1;
    }
    return records ? record(companion) : play(companion);
}
