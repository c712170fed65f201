// SPDX-License-Identifier: Apache-2.0
// Sets the speaker's volume to a number, if there is one, and prints what the daemon tells.
#include <cstdio>
#include <cstdlib>
#include <uafd_companion.hpp>

int main(int argc, char** argv) {
    const char* const names[] = {"usb",        "speaker",      "microphone",      "speaker volume",
                                 "mic volume", "speaker mute", "microphone mute", "daemon"};
    uafd::Companion companion;
    int result = companion.open(UAFD_EVENTS);
    if (result == 0 && argc > 1) {
        result = companion.setSpeakerVolume(static_cast<int16_t>(strtol(argv[1], nullptr, 10)));
    }
    while (result >= 0) {
        while (const auto event = companion.nextEvent()) {
            printf("%s %d\n", names[event->type], event->value);
            fflush(stdout);
        }
        result = companion.wait();
    }
    fprintf(stderr, "%s\n", uafd_companion_error_text(result));
    return 1;
}
