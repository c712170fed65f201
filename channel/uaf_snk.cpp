// SPDX-License-Identifier: Apache-2.0
#include "channel/uaf_snk.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <new>

#include "alsa/pcm_params.h"
#include "alsa/step_error.h"
#include "channel/log_tags.h"
#include "ipc/usb_audio_msg.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr const char* kLogTag = kSinkLogTag;

constexpr size_t kPeriodBytes = kPeriodFrames * kPcmChannels * sizeof(int16_t);
constexpr size_t kPcmBufSamples = kPeriodFrames * kFifoChannels;
constexpr size_t kFifoBlockBytes = kPcmBufSamples * sizeof(int16_t);

// The gadget card's capture stream, frames.
constexpr snd_pcm_uframes_t kPcmBufferFrames = 2400;
constexpr snd_pcm_uframes_t kStartThresholdFrames = kPeriodFrames;
constexpr snd_pcm_uframes_t kStopThresholdFrames = 4800;
constexpr snd_pcm_uframes_t kAvailMinFrames = kPeriodFrames;

// The backlog check: how much may wait, and the values of availChkCnt, in ready periods, that
// decide when to check.
constexpr snd_pcm_sframes_t kBacklogFrames = 3 * kPeriodFrames;
constexpr int kCheckDue = 99;  // the check runs from here on
constexpr int kCheckNextPeriod = 100;
constexpr int kCheckAfterDrop = 97;  // again in three periods

// Process-wide: without it, writing to a FIFO whose reader has gone would end the daemon.
void sigpipe_handler(int number) {
    LOGE("handler: %d\n", number);
}

void installSigpipeHandler() {
    struct sigaction action {};
    action.sa_handler = sigpipe_handler;
    sigemptyset(&action.sa_mask);
    if (sigaction(SIGPIPE, &action, nullptr) != 0) {
        const int savedErrno = errno;
        LOGE("sigaction failed: <%d:%s>\n", savedErrno, strerror(savedErrno));
    }
}

}  // namespace

UafSnk::UafSnk() : UafCh(USB_AUDIO_MSG_SPK_STATE) {}

UafSnk::~UafSnk() {
    if (pcmStatus != nullptr) {
        snd_pcm_status_free(pcmStatus);
        pcmStatus = nullptr;
    }
}

// ---- Start and stop: under intfMutex -----------------------------------------------------------

int UafSnk::uafStart() {
    pcmStallCnt = 0;
    availChkCnt = kCheckNextPeriod;
    if (!pcmBuf) {
        pcmBuf.reset(new (std::nothrow) int16_t[kPcmBufSamples]());
        if (!pcmBuf) {
            return -1;
        }
    }
    if (pcmStatus == nullptr && snd_pcm_status_malloc(&pcmStatus) < 0) {
        pcmStatus = nullptr;
        LOGE("failed snd_pcm_status_malloc\n");
        return -1;
    }
    if (pcmHandle != nullptr) {
        LOGE("start, audio still open, trying to close\n");
        uafStop();
    } else {
        LOGD("start, opening %s\n", DevName::printable(pcmName.load()));
    }
    return openPcm();
}

int UafSnk::openPcm() {
    // The numbers name the steps in field logs; they are fixed.
    const char* const name = pcmName.load();
    snd_pcm_t* pcm = nullptr;
    int rc = name == nullptr ? -EINVAL : snd_pcm_open(&pcm, name, SND_PCM_STREAM_CAPTURE, 0);
    if (rc < 0) {
        return logStepError(kLogTag, "uafStart", 90, "rc", rc);
    }
    pcmHandle = pcm;
    rc = setHwParams(pcmHandle, kPcmBufferFrames, kPeriodFrames, kPcmChannels, kSampleRateHz);
    if (rc < 0) {
        return logStepError(kLogTag, "uafStart", 92, "rc", rc);
    }
    rc = setSwParams(pcmHandle, kStartThresholdFrames, kStopThresholdFrames, kAvailMinFrames);
    if (rc < 0) {
        return logStepError(kLogTag, "uafStart", 94, "rc", rc);
    }
    rc = snd_pcm_start(pcmHandle);
    if (rc < 0) {
        return logStepError(kLogTag, "uafStart", 100, "rc", rc);
    }
    return 0;
}

int UafSnk::uafStop() {
    if (pcmHandle != nullptr) {
        snd_pcm_drop(pcmHandle);
        snd_pcm_close(pcmHandle);
        pcmHandle = nullptr;
        LOGD("stop, closing %s\n", DevName::printable(pcmName.load()));
    }
    if (fifo.isOpen()) {
        fifo.close();
        LOGD("stop, closing %s\n", DevName::printable(fifoName.load()));
    }
    return 0;
}

// ---- PCM to FIFO: the worker thread ------------------------------------------------------------

void UafSnk::uafLoop() {
    installSigpipeHandler();
    SynchStartupState synch;
    unsigned loopcnt = 0;
    unsigned framesRead = 0;
    unsigned bytesWritten = 0;
    while (isRunning()) {
        const int frames = pcmRead();
        if (frames < 0) {
            intfUpdate(false);
            continue;
        }
        framesRead += static_cast<unsigned>(frames);
        adjCh(pcmBuf.get(), kPcmChannels, kFifoChannels, kPeriodFrames);
        if (synchStartup(frames, &synch) >= 1) {
            continue;
        }
        const int bytes = fifoWrite();
        if (bytes < 0) {
            intfUpdate(false);
            continue;
        }
        bytesWritten += static_cast<unsigned>(bytes);
        if (loopcnt % kLogPasses == 0) {
            LOGD("loopcnt %d, pcmRead %d, fifoWrite %d\n", static_cast<int>(loopcnt),
                 static_cast<int>(framesRead), static_cast<int>(bytesWritten));
        }
        ++loopcnt;
    }
    LOGD("exit, loopcnt=%d, pcmRead %d, fifoWrite %d\n", static_cast<int>(loopcnt),
         static_cast<int>(framesRead), static_cast<int>(bytesWritten));
}

// One period into pcmBuf. Returns the frames read, 0 after a timeout or a recovered xrun (the
// buffer then holds silence or the period before), or a negative code when the channel must stop.
int UafSnk::pcmRead() {
    if (!restartIfStopped()) {
        return -1;
    }
    const int ready = snd_pcm_wait(pcmHandle, kWaitTimeoutMs);
    if (ready != 1) {
        clearPeriod();
        return missedWait(ready, kLogTag);
    }
    const int sinceCheck = availChkCnt++;
    if (sinceCheck >= kCheckDue && !dropBacklog()) {
        return -1;
    }
    const int rc = sndRead();
    if (rc == -1) {
        return -1;
    }
    if (pcmStallCnt != 0) {
        LOGD("clear timeout, pcmStallCnt=%d\n", pcmStallCnt);
        pcmStallCnt = 0;
    }
    if (rc < 0) {
        LOGE("rc=%d\n", rc);
    }
    return rc;
}

// A PCM that an xrun's recovery has prepared is started again here.
bool UafSnk::restartIfStopped() {
    const snd_pcm_state_t pcmState = snd_pcm_state(pcmHandle);
    if (pcmState != SND_PCM_STATE_SETUP && pcmState != SND_PCM_STATE_PREPARED) {
        return true;
    }
    const int rc = snd_pcm_start(pcmHandle);
    if (rc < 0) {
        LOGE("stopping, ALSA failed to start: %s", snd_strerror(rc));
        return false;
    }
    availChkCnt = kCheckNextPeriod;
    return true;
}

// Drops whole periods until no more than three wait. False when a read stopped the channel.
bool UafSnk::dropBacklog() {
    availChkCnt = 0;
    const snd_pcm_sframes_t avail = snd_pcm_avail_update(pcmHandle);
    if (avail <= kBacklogFrames) {
        return true;
    }
    LOGD("too much samples in the buffer, drop samples. (avail=%d)\n", static_cast<int>(avail));
    while (snd_pcm_avail_update(pcmHandle) > kBacklogFrames) {
        const int rc = sndRead();
        if (rc == -1) {
            return false;
        }
        if (rc < 0) {
            break;  // recovery failed, which the next read will report
        }
    }
    availChkCnt = kCheckAfterDrop;
    return true;
}

// One snd_pcm_readi. Returns the frames read, the result of an xrun's recovery (the buffer is left
// as it was, and the period before goes out once more), or -1 when the channel must stop.
int UafSnk::sndRead() {
    const int rc = static_cast<int>(snd_pcm_readi(pcmHandle, pcmBuf.get(), kPeriodFrames));
    if (rc >= 0) {
        return rc;
    }
    if (rc == -EPIPE || rc == -ESTRPIPE) {
        availChkCnt = kCheckNextPeriod;
        return recoverPcm(rc, kLogTag);
    }
    LOGE("stopping, unexpected read error\n");
    clearPeriod();
    return -1;
}

// The period as stereo to the app. Returns the bytes written; 0 when the app did not take them: the
// period is lost and the next write opens the FIFO again; -1 when the FIFO cannot be opened.
int UafSnk::fifoWrite() {
    // The open waits until the app opens the FIFO for reading; nothing is captured meanwhile.
    if (!fifo.isOpen() && !fifo.openEnd(fifoName.load(), O_WRONLY, kFifoBlockBytes, kLogTag)) {
        return -1;
    }
    const int rc = static_cast<int>(fifo.write(pcmBuf.get(), kFifoBlockBytes));
    if (rc == static_cast<int>(kFifoBlockBytes)) {
        return rc;
    }
    LOGD("closing %s, failed to write rc=%d, expect %d\n", DevName::printable(fifoName.load()), rc,
         static_cast<int>(kFifoBlockBytes));
    fifo.close();
    return 0;
}

void UafSnk::clearPeriod() {
    memset(pcmBuf.get(), 0, kPeriodBytes);
}

}  // namespace uafd
