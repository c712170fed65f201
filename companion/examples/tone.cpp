// SPDX-License-Identifier: Apache-2.0
// Lets the USB host record five seconds of a tone.
#include <cmath>
#include <cstdio>
#include <uafd_companion.hpp>

int main() {
    uafd::Companion companion;
    int result = companion.open(UAFD_MIC);
    for (int frame = 0; result >= 0 && frame < 5 * UAFD_RATE;) {
        result = companion.wait();
        if (result > 0 && (result & UAFD_READY_BLOCK) != 0) {
            int16_t block[UAFD_CHANNELS * UAFD_BLOCK_FRAMES];
            for (int i = 0; i < UAFD_BLOCK_FRAMES; ++i) {
                const double turns = 440.0 * (frame + i) / UAFD_RATE;
                block[2 * i] = static_cast<int16_t>(8000 * std::sin(2 * M_PI * turns));
                block[2 * i + 1] = block[2 * i];
            }
            if (companion.write(block) == 0) {  // else nobody records yet
                frame += UAFD_BLOCK_FRAMES;
            }
        }
    }
    if (result < 0) {
        fprintf(stderr, "%s\n", uafd_companion_error_text(result));
    }
    return result < 0 ? 1 : 0;
}
