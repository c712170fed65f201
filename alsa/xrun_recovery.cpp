// SPDX-License-Identifier: Apache-2.0
#include "alsa/xrun_recovery.h"

#include <cerrno>
#include <unistd.h>

#include <android/log.h>

namespace {

constexpr char LOG_TAG[] = "UAFSND";
constexpr unsigned RESUME_PAUSE_SECONDS = 1;
constexpr int RESUME_PAUSES = 6;

bool isCapture(snd_pcm_t* pcm) {
    return snd_pcm_stream(pcm) != SND_PCM_STREAM_PLAYBACK;
}

// Returns the last result of snd_pcm_resume; -EAGAIN when the device used up its six seconds.
int resume(snd_pcm_t* pcm) {
    int rc = snd_pcm_resume(pcm);
    for (int pauses = 0; rc == -EAGAIN;) {
        sleep(RESUME_PAUSE_SECONDS);
        if (++pauses == RESUME_PAUSES) {
            break;
        }
        rc = snd_pcm_resume(pcm);
    }
    return rc;
}

// `cause` stands in the failure's text.
int prepare(snd_pcm_t* pcm, const char* cause) {
    const int rc = snd_pcm_prepare(pcm);
    if (rc < 0) {
        __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG,
                            "Can't recovery from %s, prepare failed: %s\n", cause,
                            snd_strerror(rc));
        return rc;
    }
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "ready \n");
    return 0;
}

int recoverFromSuspend(snd_pcm_t* pcm) {
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "suspend...");
    if (resume(pcm) < 0) {
        return prepare(pcm, "suspend");
    }
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "ready \n");
    return 0;
}

int recoverFromXrun(snd_pcm_t* pcm) {
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, isCapture(pcm) ? "overrun..." : "underrun...");
    // "underrun" for both directions: log readers search for this one text.
    return prepare(pcm, "underrun");
}

}  // namespace

int xrun_recovery(snd_pcm_t* pcm, int err) {
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "stream recovery from ...");
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "xrun_recovery: %s xrun, err %d",
                        isCapture(pcm) ? "capture" : "playback", err);
    switch (err) {
        case -ESTRPIPE:
            return recoverFromSuspend(pcm);
        case -EPIPE:
            return recoverFromXrun(pcm);
        default:
            __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "unknown \n");
            return err;
    }
}
