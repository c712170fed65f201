// SPDX-License-Identifier: Apache-2.0
// The least that moves the host's speaker into the app's FIFO: read a period, double it to stereo,
// write it to standard output. With --ask it makes the daemon's other two calls of a period, too:
// snd_pcm_state and snd_pcm_wait before each read.
#include <cstdint>
#include <cstring>
#include <unistd.h>

#include <alsa/asoundlib.h>

#include "alsa/pcm_params.h"

namespace {

constexpr int kPeriodFrames = 240;
constexpr int kWaitMs = 10;

int16_t mono[kPeriodFrames];
int16_t stereo[kPeriodFrames][2];

bool isReady(snd_pcm_t* pcm) {
    return snd_pcm_state(pcm) == SND_PCM_STATE_RUNNING && snd_pcm_wait(pcm, kWaitMs) == 1;
}

bool movePeriod(snd_pcm_t* pcm) {
    if (snd_pcm_readi(pcm, mono, kPeriodFrames) != kPeriodFrames) {
        return false;
    }
    for (int i = 0; i < kPeriodFrames; ++i) {
        stereo[i][0] = stereo[i][1] = mono[i];
    }
    return write(STDOUT_FILENO, stereo, sizeof stereo) == sizeof stereo;
}

}  // namespace

int main(int argc, char** argv) {
    const bool asks = argc > 1 && strcmp(argv[1], "--ask") == 0;
    snd_pcm_t* pcm = nullptr;
    if (snd_pcm_open(&pcm, "hw:1", SND_PCM_STREAM_CAPTURE, 0) < 0 ||
        uafd::setHwParams(pcm, 2400, kPeriodFrames, 1, 48000) < 0 ||
        uafd::setSwParams(pcm, 240, 4800, 240) < 0 || snd_pcm_start(pcm) < 0) {
        return 1;
    }
    while ((!asks || isReady(pcm)) && movePeriod(pcm)) {
    }
    return 1;
}
