// SPDX-License-Identifier: Apache-2.0
// Writes what the USB host plays into a file: five seconds, raw, 48000 Hz, stereo, 16 bits.
#include <stdio.h>
#include <uafd_companion.h>

int main(int argc, char** argv) {
    uafd_companion* companion;
    int result = uafd_companion_open(NULL, UAFD_SOUND, &companion);
    if (result < 0) {
        fprintf(stderr, "%s\n", uafd_companion_error_text(result));
        return 1;
    }
    const char* name = argc > 1 ? argv[1] : "heard.raw";
    FILE* file = fopen(name, "wb");
    int frames = 0;
    while (file != NULL && result >= 0 && frames < 5 * UAFD_RATE) {
        int16_t samples[UAFD_CHANNELS * 480];
        uafd_companion_wait(companion);
        result = uafd_companion_read(companion, samples, 480);
        if (result > 0) {
            fwrite(samples, UAFD_CHANNELS * sizeof *samples, (size_t)result, file);
            frames += result;
        }
    }
    uafd_companion_close(companion);
    if (file == NULL || fclose(file) != 0) {
        perror(name);
        return 1;
    }
    return result < 0 ? 1 : 0;
}
