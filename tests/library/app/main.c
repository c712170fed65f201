// SPDX-License-Identifier: Apache-2.0
/* The smallest app, valid in every language that the header supports: prints the version. */
#include <stdio.h>
#include <string.h>
#include <uafd_companion.h>

static const unsigned parts[] = {UAFD_SPEAKER, UAFD_MIC, UAFD_SOUND, UAFD_EVENTS, UAFD_ALL};
static const int ready[] = {UAFD_READY_SOUND, UAFD_READY_EVENT, UAFD_READY_BLOCK, UAFD_READY_WAKE};
static const int sizes[] = {UAFD_RATE, UAFD_CHANNELS, UAFD_BLOCK_FRAMES, UAFD_BLOCK_NS};

int main(int argc, char** argv) {
    uafd_options options = UAFD_OPTIONS_INIT;
    uafd_companion* companion = NULL;
    unsigned i;
    options.directory = argc > 1 ? argv[1] : NULL;
    for (i = 0; i < sizeof parts / sizeof *parts; ++i) {
        int error;
        options.parts = parts[i];
        error = uafd_companion_open_with(&options, &companion);
        if (error != 0) {
            printf("%s\n", uafd_companion_error_text(error));
            return 1;
        }
        uafd_companion_close(companion);
    }
    printf("%s\n", uafd_companion_version());
    return strcmp(uafd_companion_version(), UAFD_COMPANION_VERSION) + (ready[0] + sizes[0] == 0);
}
