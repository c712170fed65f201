// SPDX-License-Identifier: Apache-2.0
// The least that moves what the app says into the host's microphone: read a block of 10 ms from
// standard input, keep the left channel, write it in two periods. With --ask it makes the daemon's
// other two calls of a period, too: snd_pcm_state and snd_pcm_wait before each write. With
// --two-threads it does so on a thread of its own, which takes what the reader has left behind.
#include <cstdint>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

#include <alsa/asoundlib.h>

#include "alsa/pcm_params.h"

namespace {

constexpr int kPeriodFrames = 240;
constexpr int kBlockFrames = 2 * kPeriodFrames;
constexpr int kWaitMs = 10;

int16_t stereo[kBlockFrames][2];
int16_t mono[kBlockFrames];
const int16_t kSilence[kPeriodFrames] = {};

bool readBlock() {
    // An app's blocks are whole.
    if (read(STDIN_FILENO, stereo, sizeof stereo) != sizeof stereo) {
        return false;
    }
    for (int i = 0; i < kBlockFrames; ++i) {
        mono[i] = stereo[i][0];
    }
    return true;
}

bool isReady(snd_pcm_t* pcm) {
    return snd_pcm_state(pcm) == SND_PCM_STATE_RUNNING && snd_pcm_wait(pcm, kWaitMs) == 1;
}

bool writePeriod(snd_pcm_t* pcm, const int16_t* period) {
    return snd_pcm_writei(pcm, period, kPeriodFrames) == kPeriodFrames;
}

// The block that arrives every 10 ms always finds its room: 5 ms are ahead of it.
void runOneThread(snd_pcm_t* pcm, bool asks) {
    if (!readBlock() || !writePeriod(pcm, kSilence)) {
        return;
    }
    do {
        for (int done = 0; done < kBlockFrames; done += kPeriodFrames) {
            if ((asks && !isReady(pcm)) || !writePeriod(pcm, mono + done)) {
                return;
            }
        }
    } while (readBlock());
}

// Periods that were read and not yet written; the indexes only grow.
struct Ring {
    static constexpr unsigned kPeriods = 8;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    unsigned read = 0;
    unsigned written = 0;
    int16_t periods[kPeriods][kPeriodFrames];
};
Ring ring;

void* readBlocks(void*) {
    while (readBlock()) {
        pthread_mutex_lock(&ring.mutex);
        for (int done = 0; done < kBlockFrames; done += kPeriodFrames) {
            memcpy(ring.periods[ring.read++ % Ring::kPeriods], mono + done, sizeof ring.periods[0]);
        }
        pthread_mutex_unlock(&ring.mutex);
    }
    return nullptr;
}

void takePeriod(int16_t* period) {
    pthread_mutex_lock(&ring.mutex);
    const bool isThere = ring.read != ring.written;
    memcpy(period, isThere ? ring.periods[ring.written++ % Ring::kPeriods] : kSilence,
           sizeof kSilence);
    pthread_mutex_unlock(&ring.mutex);
}

void runTwoThreads(snd_pcm_t* pcm) {
    int16_t period[kPeriodFrames];
    pthread_t reader;
    if (pthread_create(&reader, nullptr, readBlocks, nullptr) != 0 || !writePeriod(pcm, kSilence)) {
        return;
    }
    while (isReady(pcm)) {
        takePeriod(period);
        if (!writePeriod(pcm, period)) {
            return;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const char* const how = argc > 1 ? argv[1] : "";
    snd_pcm_t* pcm = nullptr;
    if (snd_pcm_open(&pcm, "hw:1", SND_PCM_STREAM_PLAYBACK, 0) < 0 ||
        uafd::setHwParams(pcm, 720, kPeriodFrames, 1, 48000) < 0 ||
        uafd::setSwParams(pcm, 240, 1440, 240) < 0) {
        return 1;
    }
    if (strcmp(how, "--two-threads") == 0) {
        runTwoThreads(pcm);
    } else {
        runOneThread(pcm, strcmp(how, "--ask") == 0);
    }
    return 1;
}
