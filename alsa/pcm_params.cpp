// SPDX-License-Identifier: Apache-2.0
#include "alsa/pcm_params.h"

#include "alsa/log_tag.h"
#include "alsa/step_error.h"
#include "platform/log.h"

namespace uafd {

int setHwParams(snd_pcm_t* pcm, snd_pcm_uframes_t bufferSize, snd_pcm_uframes_t periodSize,
                unsigned channels, unsigned rate) {
    snd_pcm_hw_params_t* params;
    snd_pcm_hw_params_alloca(&params);
    int rc = snd_pcm_hw_params_any(pcm, params);
    if (rc < 0) {
        return logStepError(kLogTag, "setHwParams", 112, "rc", rc);
    }
    rc = snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED);
    if (rc < 0) {
        return logStepError(kLogTag, "setHwParams", 118, "rc", rc);
    }
    rc = snd_pcm_hw_params_set_format(pcm, params, SND_PCM_FORMAT_S16_LE);
    if (rc < 0) {
        return logStepError(kLogTag, "setHwParams", 122, "rc", rc);
    }
    rc = snd_pcm_hw_params_set_channels(pcm, params, channels);
    if (rc < 0) {
        return logStepError(kLogTag, "setHwParams", 126, "rc", rc);
    }
    unsigned grantedRate = rate;
    // Shared on purpose: the period call gets the value that the rate call has left in it.
    int direction = 0;
    rc = snd_pcm_hw_params_set_rate_near(pcm, params, &grantedRate, &direction);
    if (rc < 0) {
        return logStepError(kLogTag, "setHwParams", 132, "rc", rc);
    }
    if (grantedRate != rate) {
        // The stream uses this rate, however wrong it is. Log readers know the misspelt word.
        LOGD("warnning: rate is not accurate, want %d Hz, got %d Hz\n", static_cast<int>(rate),
             static_cast<int>(grantedRate));
    }
    // The buffer comes first, so that the period fits the buffer that was granted.
    if (bufferSize != 0) {
        snd_pcm_uframes_t grantedBuffer = bufferSize;
        rc = snd_pcm_hw_params_set_buffer_size_near(pcm, params, &grantedBuffer);
        if (rc < 0) {
            return logStepError(kLogTag, "setHwParams", 140, "rc", rc);
        }
    }
    if (periodSize != 0) {
        snd_pcm_uframes_t grantedPeriod = periodSize;
        rc = snd_pcm_hw_params_set_period_size_near(pcm, params, &grantedPeriod, &direction);
        if (rc < 0) {
            return logStepError(kLogTag, "setHwParams", 147, "rc", rc);
        }
    }
    rc = snd_pcm_hw_params(pcm, params);
    return rc < 0 ? logStepError(kLogTag, "setHwParams", 152, "rc", rc) : 0;
}

int setSwParams(snd_pcm_t* pcm, snd_pcm_uframes_t startThreshold, snd_pcm_uframes_t stopThreshold,
                snd_pcm_uframes_t availMin) {
    snd_pcm_sw_params_t* params;
    snd_pcm_sw_params_alloca(&params);
    int err = snd_pcm_sw_params_current(pcm, params);
    if (err < 0) {
        return logStepError(kLogTag, "setSwParams", 73, "err", err);
    }
    err = snd_pcm_sw_params_set_start_threshold(pcm, params, startThreshold);
    if (err < 0) {
        return logStepError(kLogTag, "setSwParams", 77, "err", err);
    }
    err = snd_pcm_sw_params_set_stop_threshold(pcm, params, stopThreshold);
    if (err < 0) {
        return logStepError(kLogTag, "setSwParams", 81, "err", err);
    }
    err = snd_pcm_sw_params_set_avail_min(pcm, params, availMin);
    if (err < 0) {
        return logStepError(kLogTag, "setSwParams", 85, "err", err);
    }
    err = snd_pcm_sw_params(pcm, params);
    return err < 0 ? logStepError(kLogTag, "setSwParams", 89, "err", err) : 0;
}

}  // namespace uafd
