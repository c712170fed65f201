// SPDX-License-Identifier: Apache-2.0
// Hardware and software parameters of the fake alsa-lib's PCMs.
#include "tests/support/fake_pcm.h"

using fake_alsa::answerPcm;
using fake_alsa::arguments;
using fake_alsa::fillOf;
using fake_alsa::nameOf;

namespace {

// The sizes that a driver chooses unless it is asked for others.
constexpr snd_pcm_uframes_t kDefaultBuffer = 4096;
constexpr snd_pcm_uframes_t kDefaultPeriod = 1024;

}  // namespace

// Defines the call that sets one parameter; its value is recorded.
#define SETTER(params_t, call, type, member)                                         \
    int snd_pcm_##call(snd_pcm_t* pcm, snd_pcm_##params_t##_t* params, type value) { \
        return answerPcm("snd_pcm_" #call, pcm, arguments(pcm, value), [&] {         \
            params->member = value;                                                  \
            return 0;                                                                \
        });                                                                          \
    }

extern "C" {

SETTER(hw_params, hw_params_set_access, snd_pcm_access_t, access)
SETTER(hw_params, hw_params_set_format, snd_pcm_format_t, format)
SETTER(hw_params, hw_params_set_channels, unsigned, channels)
SETTER(sw_params, sw_params_set_start_threshold, snd_pcm_uframes_t, startThreshold)
SETTER(sw_params, sw_params_set_stop_threshold, snd_pcm_uframes_t, stopThreshold)
SETTER(sw_params, sw_params_set_avail_min, snd_pcm_uframes_t, availMin)

size_t snd_pcm_hw_params_sizeof() {
    return sizeof(snd_pcm_hw_params_t);
}

int snd_pcm_hw_params_any(snd_pcm_t* pcm, snd_pcm_hw_params_t* params) {
    return answerPcm("snd_pcm_hw_params_any", pcm, nameOf(pcm) + fillOf(params), [params] {
        params->buffer = kDefaultBuffer;
        params->period = kDefaultPeriod;
        return 0;
    });
}

int snd_pcm_hw_params_set_rate_near(snd_pcm_t* pcm, snd_pcm_hw_params_t* params, unsigned* rate,
                                    int* direction) {
    return answerPcm("snd_pcm_hw_params_set_rate_near", pcm, arguments(pcm, *rate, *direction),
                     [&] {
                         *rate = pcm->device.grantedRate != 0 ? pcm->device.grantedRate : *rate;
                         *direction = pcm->device.rateDirection;
                         params->rate = *rate;
                         return 0;
                     });
}

int snd_pcm_hw_params_set_buffer_size_near(snd_pcm_t* pcm, snd_pcm_hw_params_t* params,
                                           snd_pcm_uframes_t* frames) {
    return answerPcm("snd_pcm_hw_params_set_buffer_size_near", pcm, arguments(pcm, *frames), [&] {
        *frames = pcm->device.grantedBuffer != 0 ? pcm->device.grantedBuffer : *frames;
        params->buffer = *frames;
        return 0;
    });
}

int snd_pcm_hw_params_set_period_size_near(snd_pcm_t* pcm, snd_pcm_hw_params_t* params,
                                           snd_pcm_uframes_t* frames, int* direction) {
    return answerPcm(
        "snd_pcm_hw_params_set_period_size_near", pcm, arguments(pcm, *frames, *direction), [&] {
            *frames = pcm->device.grantedPeriod != 0 ? pcm->device.grantedPeriod : *frames;
            params->period = *frames;
            return 0;
        });
}

int snd_pcm_hw_params(snd_pcm_t* pcm, snd_pcm_hw_params_t* params) {
    return answerPcm("snd_pcm_hw_params", pcm, [&] {
        pcm->hw = *params;
        pcm->sw = {1, params->buffer, params->period};
        pcm->prepare();
        return 0;
    });
}

size_t snd_pcm_sw_params_sizeof() {
    return sizeof(snd_pcm_sw_params_t);
}

int snd_pcm_sw_params_current(snd_pcm_t* pcm, snd_pcm_sw_params_t* params) {
    return answerPcm("snd_pcm_sw_params_current", pcm, nameOf(pcm) + fillOf(params), [&] {
        *params = pcm->sw;
        return 0;
    });
}

int snd_pcm_sw_params(snd_pcm_t* pcm, snd_pcm_sw_params_t* params) {
    return answerPcm("snd_pcm_sw_params", pcm, [&] {
        pcm->sw = *params;
        return 0;
    });
}

}  // extern "C"
