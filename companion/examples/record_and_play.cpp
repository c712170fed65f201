// SPDX-License-Identifier: Apache-2.0
// Five seconds of a companion app: what the USB host plays goes into a file (raw, 48000 Hz, stereo,
// 16 bits), and the host records a tone.
#include <cmath>
#include <cstdio>
#include <uafd_companion.hpp>

int main(int argc, char** argv) {
    uafd::Companion companion;
    FILE* file = fopen(argc > 1 ? argv[1] : "heard.raw", "wb");
    if (file == nullptr || companion.open(UAFD_SOUND) != 0) {
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
        const int frames = companion.read(heard, 4800);
        fwrite(heard, 2 * sizeof *heard, static_cast<size_t>(frames > 0 ? frames : 0), file);
    }
    return fclose(file) == 0 ? 0 : 1;
}
