// SPDX-License-Identifier: Apache-2.0
#include "alsa/xrun_recovery.h"

#include <cerrno>
#include <unistd.h>

#include "alsa/log_tag.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr unsigned kResumePauseS = 1;
constexpr int kResumePauses = 6;

bool isCapture(snd_pcm_t* pcm) {
    return snd_pcm_stream(pcm) != SND_PCM_STREAM_PLAYBACK;
}

// Returns the last result of snd_pcm_resume; -EAGAIN when the device used up its six seconds.
int resume(snd_pcm_t* pcm) {
    int rc = snd_pcm_resume(pcm);
    for (int pauses = 0; rc == -EAGAIN;) {
        sleep(kResumePauseS);
        if (++pauses == kResumePauses) {
            break;
        }
        rc = snd_pcm_resume(pcm);
    }
    return rc;
}

// `cause` is part of the log line after a failure.
int prepare(snd_pcm_t* pcm, const char* cause) {
    const int rc = snd_pcm_prepare(pcm);
    if (rc < 0) {
        LOGD("Can't recovery from %s, prepare failed: %s\n", cause, snd_strerror(rc));
        return rc;
    }
    LOGD("ready \n");
    return 0;
}

int recoverFromSuspend(snd_pcm_t* pcm) {
    LOGD("suspend...");
    if (resume(pcm) < 0) {
        return prepare(pcm, "suspend");
    }
    LOGD("ready \n");
    return 0;
}

int recoverFromXrun(snd_pcm_t* pcm) {
    if (isCapture(pcm)) {
        LOGD("overrun...");
    } else {
        LOGD("underrun...");
    }
    // "underrun" for both directions: log readers search for this one text.
    return prepare(pcm, "underrun");
}

}  // namespace

int xrun_recovery(snd_pcm_t* pcm, int err) {
    LOGD("stream recovery from ...");
    LOGD("xrun_recovery: %s xrun, err %d", isCapture(pcm) ? "capture" : "playback", err);
    switch (err) {
        case -ESTRPIPE:
            return recoverFromSuspend(pcm);
        case -EPIPE:
            return recoverFromXrun(pcm);
        default:
            LOGD("unknown \n");
            return err;
    }
}

}  // namespace uafd
