// SPDX-License-Identifier: Apache-2.0
// Five seconds of a companion app: what the USB host plays goes into a file (raw, 48000 Hz, stereo,
// 16 bits), the host records a tone, and what happens is printed.
#include <cmath>
#include <cstdio>
#include <uafd_companion.hpp>

int main(int argc, char** argv) {
    uafd::Companion companion;
    const int error = companion.open();
    FILE* file = fopen(argc > 1 ? argv[1] : "heard.raw", "wb");
    if (error != 0 || file == nullptr) {
        fprintf(stderr, "%s\n", error != 0 ? uafd_companion_error_text(error) : "no file");
        return 1;
    }
    int16_t heard[2 * 4800];
    int16_t said[2 * UAFD_BLOCK_FRAMES];
    for (int frame = 0; frame < 5 * UAFD_RATE;) {
        if (companion.wait() >= UAFD_READY_BLOCK) {
            for (int i = 0; i < UAFD_BLOCK_FRAMES; ++i, ++frame) {
                said[2 * i] = said[2 * i + 1] = static_cast<int16_t>(8000 * sin(frame * 0.0576));
            }
            companion.write(said);
        }
        while (const auto event = companion.nextEvent()) {
            printf("event %d: %d\n", event->type, event->value);
        }
        const int frames = companion.read(heard, 4800);
        fwrite(heard, 2 * sizeof *heard, static_cast<size_t>(frames > 0 ? frames : 0), file);
    }
    return fclose(file) == 0 ? 0 : 1;
}
