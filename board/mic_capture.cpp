// SPDX-License-Identifier: Apache-2.0
// mic_capture: records from the board's own sound card and throws the sound away, as the board's
// voice service does all day. It asks for CLOCK_REALTIME time stamps, without which the kernel's
// status file of the stream shows none. Runs until it is killed.
#include <cstdint>
#include <cstdio>

#include <alsa/asoundlib.h>

namespace {

constexpr char kDevice[] = "hw:0,0";
constexpr unsigned kChannels = 1;
constexpr unsigned kRateHz = 48000;
constexpr unsigned kLatencyUs = 100000;
constexpr snd_pcm_uframes_t kReadFrames = 480;

// The stream starts with its first read.
int setSwParams(snd_pcm_t* pcm) {
    snd_pcm_sw_params_t* params;
    snd_pcm_sw_params_alloca(&params);
    int error = snd_pcm_sw_params_current(pcm, params);
    if (error == 0) {
        error = snd_pcm_sw_params_set_start_threshold(pcm, params, 1);
    }
    if (error == 0) {
        error = snd_pcm_sw_params_set_tstamp_mode(pcm, params, SND_PCM_TSTAMP_ENABLE);
    }
    if (error == 0) {
        error = snd_pcm_sw_params_set_tstamp_type(pcm, params, SND_PCM_TSTAMP_TYPE_GETTIMEOFDAY);
    }
    return error == 0 ? snd_pcm_sw_params(pcm, params) : error;
}

// Ends with the first error that recovery cannot mend.
int record(snd_pcm_t* pcm) {
    static int16_t sound[kReadFrames * kChannels];
    for (;;) {
        const auto frames = static_cast<int>(snd_pcm_readi(pcm, sound, kReadFrames));
        if (frames < 0 && snd_pcm_recover(pcm, frames, 1) < 0) {
            return frames;
        }
    }
}

int fail(const char* step, int error) {
    fprintf(stderr, "mic_capture: %s: %s\n", step, snd_strerror(error));
    return 1;
}

}  // namespace

int main() {
    snd_pcm_t* pcm = nullptr;
    int error = snd_pcm_open(&pcm, kDevice, SND_PCM_STREAM_CAPTURE, 0);
    if (error < 0) {
        return fail("opening", error);
    }
    error = snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, kChannels,
                               kRateHz, 0, kLatencyUs);
    if (error < 0) {
        return fail("hardware parameters", error);
    }
    error = setSwParams(pcm);
    if (error < 0) {
        return fail("software parameters", error);
    }
    return fail("reading", record(pcm));
}
