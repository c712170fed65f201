// SPDX-License-Identifier: Apache-2.0
#include "alsa/pcm_params.h"

#include <android/log.h>

#include "alsa/step_error.h"

namespace {

constexpr char LOG_TAG[] = "UAFSND";

// True when the step succeeded; otherwise the report has been logged.
bool hwStep(int step, int rc) {
    if (rc < 0) {
        logStepError(LOG_TAG, "setHwParams", step, "rc", rc);
    }
    return rc >= 0;
}

bool swStep(int step, int err) {
    if (err < 0) {
        logStepError(LOG_TAG, "setSwParams", step, "err", err);
    }
    return err >= 0;
}

}  // namespace

int setHwParams(snd_pcm_t* pcm, snd_pcm_uframes_t bufferSize, snd_pcm_uframes_t periodSize,
                unsigned channels, unsigned rate) {
    snd_pcm_hw_params_t* params;
    snd_pcm_hw_params_alloca(&params);
    int rc = snd_pcm_hw_params_any(pcm, params);
    if (!hwStep(112, rc)) {
        return rc;
    }
    rc = snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED);
    if (!hwStep(118, rc)) {
        return rc;
    }
    rc = snd_pcm_hw_params_set_format(pcm, params, SND_PCM_FORMAT_S16_LE);
    if (!hwStep(122, rc)) {
        return rc;
    }
    rc = snd_pcm_hw_params_set_channels(pcm, params, channels);
    if (!hwStep(126, rc)) {
        return rc;
    }
    unsigned grantedRate = rate;
    // Shared on purpose: what the rate call leaves in it goes to the period call.
    int direction = 0;
    rc = snd_pcm_hw_params_set_rate_near(pcm, params, &grantedRate, &direction);
    if (!hwStep(132, rc)) {
        return rc;
    }
    if (grantedRate != rate) {
        // However far off, the stream goes on with it; log readers know the misspelt word.
        __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG,
                            "warnning: rate is not accurate, want %d Hz, got %d Hz\n",
                            static_cast<int>(rate), static_cast<int>(grantedRate));
    }
    // The buffer first, so that the period is fitted into the buffer that was granted.
    if (bufferSize != 0) {
        snd_pcm_uframes_t grantedBuffer = bufferSize;
        rc = snd_pcm_hw_params_set_buffer_size_near(pcm, params, &grantedBuffer);
        if (!hwStep(140, rc)) {
            return rc;
        }
    }
    if (periodSize != 0) {
        snd_pcm_uframes_t grantedPeriod = periodSize;
        rc = snd_pcm_hw_params_set_period_size_near(pcm, params, &grantedPeriod, &direction);
        if (!hwStep(147, rc)) {
            return rc;
        }
    }
    rc = snd_pcm_hw_params(pcm, params);
    return hwStep(152, rc) ? 0 : rc;
}

int setSwParams(snd_pcm_t* pcm, snd_pcm_uframes_t startThreshold, snd_pcm_uframes_t stopThreshold,
                snd_pcm_uframes_t availMin) {
    snd_pcm_sw_params_t* params;
    snd_pcm_sw_params_alloca(&params);
    int err = snd_pcm_sw_params_current(pcm, params);
    if (!swStep(73, err)) {
        return err;
    }
    err = snd_pcm_sw_params_set_start_threshold(pcm, params, startThreshold);
    if (!swStep(77, err)) {
        return err;
    }
    err = snd_pcm_sw_params_set_stop_threshold(pcm, params, stopThreshold);
    if (!swStep(81, err)) {
        return err;
    }
    err = snd_pcm_sw_params_set_avail_min(pcm, params, availMin);
    if (!swStep(85, err)) {
        return err;
    }
    err = snd_pcm_sw_params(pcm, params);
    return swStep(89, err) ? 0 : err;
}
