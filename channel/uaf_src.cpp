// SPDX-License-Identifier: Apache-2.0
#include "channel/uaf_src.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sched.h>

#include "alsa/pcm_params.h"
#include "alsa/step_error.h"
#include "channel/log_tags.h"
#include "channel/rt_thread.h"
#include "ipc/usb_audio_msg.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr const char* kLogTag = kSourceLogTag;

constexpr size_t kFifoBlockBytes = kFifoBlockFrames * kFifoChannels * sizeof(int16_t);

// Buffer sizes, samples. pcmBuf and silenceBuf hold a period of 240; SSRS's test tone writes up to
// 15 samples beyond a frame.
constexpr size_t kFifoBufSamples = kFifoBlockFrames * kFifoChannels;
constexpr size_t kPcmBufSamples = 960;
constexpr size_t kSilenceBufSamples = 720;

// The gadget card's playback stream, frames.
constexpr snd_pcm_uframes_t kPcmBufferFrames = kSourceRingFrames;
constexpr snd_pcm_uframes_t kStartThresholdFrames = kPeriodFrames;
constexpr snd_pcm_uframes_t kStopThresholdFrames = 1440;
constexpr snd_pcm_uframes_t kAvailMinFrames = kPeriodFrames;

std::unique_ptr<int16_t[]> zeroedSamples(size_t count) {
    return std::unique_ptr<int16_t[]>(new (std::nothrow) int16_t[count]());
}

}  // namespace

UafSrc::UafSrc() : UafCh(USB_AUDIO_MSG_MIC_STATE) {}

UafSrc::~UafSrc() {
    if (fifo.isOpen()) {
        fifo.close();
        LOGD("destruct, closing %s\n", DevName::printable(fifoName.load()));
    }
    if (pcmStatus != nullptr) {
        snd_pcm_status_free(pcmStatus);
    }
}

// ---- Start and stop: under intfMutex -----------------------------------------------------------

int UafSrc::uafStart() {
    pcmStallCnt = 0;
    availChkCnt = 0;
    if (!allocateBuffers()) {
        return -1;
    }
    // If a failed start has left the PCM open, it is closed below, together with its buffer thread;
    // until then no thread is started.
    const bool stillOpen = pcmHandle != nullptr;
    if (!stillOpen) {
        buildFrameBuffer();
        if (!startBufferThread()) {
            return 0;
        }
    }
    if (pcmStatus == nullptr && snd_pcm_status_malloc(&pcmStatus) < 0) {
        pcmStatus = nullptr;
        LOGE("failed snd_pcm_status_malloc\n");
        return -1;
    }
    if (stillOpen) {
        LOGE("start, audio still open, trying to close\n");
        uafStop();
        buildFrameBuffer();
        if (!startBufferThread()) {
            return 0;
        }
    } else {
        LOGD("start, opening %s\n", DevName::printable(pcmName.load()));
    }
    return openPcm();
}

// The buffers live until the channel is destroyed. False without memory.
bool UafSrc::allocateBuffers() {
    if (!fifoBuf) {
        fifoBuf = zeroedSamples(kFifoBufSamples);
    }
    if (!pcmBuf) {
        pcmBuf = zeroedSamples(kPcmBufSamples);
    }
    if (!silenceBuf) {
        silenceBuf = zeroedSamples(kSilenceBufSamples);
    }
    const bool frameBufferHasStorage = frameBuffer.allocateStorage();
    return fifoBuf && pcmBuf && silenceBuf && frameBufferHasStorage;
}

// Does nothing while the buffer thread of a failed start may be using the frame buffer.
void UafSrc::buildFrameBuffer() {
    if (!bufferThreadJoinable) {
        frameBuffer.build();
    }
}

// Keeps the thread of a failed start. False when none could be created.
bool UafSrc::startBufferThread() {
    if (bufferThreadJoinable || fifoName.load() == nullptr) {
        return true;
    }
    fifo.allowWaits();
    bufferThreadRunning.store(1, std::memory_order_relaxed);
    holdDevNames();
    if (createRtThread(&bufferThread, UafSrcBufferThread, this, kLogTag) != 0) {
        const int savedErrno = errno;
        bufferThreadRunning.store(0, std::memory_order_relaxed);
        releaseDevNames();
        LOGE("pthread_create: <%d:%s>\n", savedErrno, strerror(savedErrno));
        return false;
    }
    bufferThreadJoinable = true;
    return true;
}

int UafSrc::openPcm() {
    // The numbers name the steps in field logs; they are fixed.
    const char* const name = pcmName.load();
    snd_pcm_t* pcm = nullptr;
    int rc = name == nullptr ? -EINVAL : snd_pcm_open(&pcm, name, SND_PCM_STREAM_PLAYBACK, 0);
    if (rc < 0) {
        return logStepError(kLogTag, "uafStart", 204, "rc", rc);
    }
    pcmHandle = pcm;
    rc = setHwParams(pcmHandle, kPcmBufferFrames, kPeriodFrames, kPcmChannels, kSampleRateHz);
    if (rc < 0) {
        return logStepError(kLogTag, "uafStart", 206, "rc", rc);
    }
    rc = setSwParams(pcmHandle, kStartThresholdFrames, kStopThresholdFrames, kAvailMinFrames);
    if (rc < 0) {
        return logStepError(kLogTag, "uafStart", 208, "rc", rc);
    }
    rc = static_cast<int>(snd_pcm_writei(pcmHandle, silenceBuf.get(), kPeriodFrames));
    if (rc < 0) {
        return logStepError(kLogTag, "uafStart", 214, "rc", rc);
    }
    return 0;
}

int UafSrc::uafStop() {
    if (bufferThreadJoinable) {
        LOGD("stopping buffer thread\n");
        fifo.endWaits(bufferThread, bufferThreadRunning);
        pthread_join(bufferThread, nullptr);
        bufferThreadJoinable = false;
        releaseDevNames();
    }
    if (pcmHandle != nullptr) {
        snd_pcm_drop(pcmHandle);
        snd_pcm_close(pcmHandle);
        pcmHandle = nullptr;
        LOGD("stop, close %s\n", DevName::printable(pcmName.load()));
    }
    frameBuffer.release();
    return 0;
}

// ---- FIFO to frame buffer: the buffer thread ---------------------------------------------------

void* UafSrc::UafSrcBufferThread(void* channel) {
    static_cast<UafSrc*>(channel)->bufferLoop();
    return nullptr;
}

void UafSrc::bufferLoop() {
    LOGD("enter buffer loop\n");
    BufferRun run;
    while (!fifo.waitsEnded()) {
        if (bufferPass(run)) {
            if (run.loopcnt % kLogPasses == 0) {
                LOGD("buffer loopcnt %d, fifoRead %d\n", static_cast<int>(run.loopcnt),
                     static_cast<int>(run.fifoBytes));
            }
            ++run.loopcnt;
        } else if (!fifo.wasLetOut()) {
            endFailedBufferPass();
        }
    }
    bufferThreadRunning.store(0, std::memory_order_release);
    LOGD("exit buffer loop, loopcnt=%d, fifoRead %d\n", static_cast<int>(run.loopcnt),
         static_cast<int>(run.fifoBytes));
}

// Moves one block from the FIFO into the frame buffer. False when the stop has ended the wait, and
// after any failure, for which a stop has then been requested.
bool UafSrc::bufferPass(BufferRun& run) {
    const int bytes = fifoRead();
    if (bytes < 0) {
        if (!fifo.wasLetOut()) {
            requestStop();
        }
        return false;
    }
    run.fifoBytes += static_cast<unsigned>(bytes);
    adjCh(fifoBuf.get(), kFifoChannels, kPcmChannels, kFifoBlockFrames);
    const FrameBuffer::Result written = frameBuffer.write(fifoBuf.get(), run.loopcnt);
    if (!written.ok()) {
        requestStop();  // under the frame buffer's lock if `written` holds it
    }
    return written.ok();
}

// A failed pass is repeated at once, but lets other threads run. When the channel is stopped,
// because a start failed after creating this thread, nobody ends the thread, so it must not spin.
void UafSrc::endFailedBufferPass() {
    if (state.load(std::memory_order_relaxed) == UAFCH_STOPPED) {
        pauseForTimeout();
    } else {
        sched_yield();
    }
}

// One read of up to kFifoBlockBytes into fifoBuf. A short read is not completed: the rest of the
// block keeps what the read before left there. Returns the bytes, 0 at end of file, or -1; nothing
// is logged or closed when the stop has ended the wait.
int UafSrc::fifoRead() {
    // The open waits until the app opens the FIFO for writing.
    if (!fifo.isOpen() && !fifo.openEnd(fifoName.load(), O_RDONLY, kFifoBlockBytes, kLogTag)) {
        return -1;
    }
    if (!fifo.isPipe()) {
        pauseForTimeout();  // what is in the FIFO's place may be a file whose reads never wait
    }
    const int rc = static_cast<int>(fifo.read(fifoBuf.get(), kFifoBlockBytes));
    if (rc > 0 || fifo.wasLetOut()) {
        return rc;
    }
    memset(fifoBuf.get(), 0, kFifoBlockBytes);
    LOGD("closing %s, failed to read rc=%d, expect %d\n", DevName::printable(fifoName.load()), rc,
         static_cast<int>(kFifoBlockBytes));
    fifo.close();
    return rc;
}

// ---- Frame buffer to PCM: the worker thread ----------------------------------------------------

void UafSrc::uafLoop() {
    unsigned loopcnt = 0;
    unsigned framesWritten = 0;
    while (isRunning()) {
        const int frames = pcmWrite();
        if (frames < 0) {
            continue;
        }
        framesWritten += static_cast<unsigned>(frames);
        if (loopcnt % kLogPasses == 0) {
            LOGD("loopcnt %d, pcmWrite %d\n", static_cast<int>(loopcnt),
                 static_cast<int>(framesWritten));
        }
        ++loopcnt;
    }
    LOGD("exit, loopcnt=%d, pcmWrite %d\n", static_cast<int>(loopcnt),
         static_cast<int>(framesWritten));
}

// One frame into the PCM. Returns the frames written, 0 when none could be, or, after a stop
// request, a negative code.
int UafSrc::pcmWrite() {
    if (pcmHandle == nullptr) {
        return stopIfFailed(-1);  // started without its buffer thread: the channel stops itself
    }
    const snd_pcm_state_t pcmState = snd_pcm_state(pcmHandle);
    if (pcmState == SND_PCM_STATE_SETUP || pcmState == SND_PCM_STATE_PREPARED) {
        LOGD("need to kick start\n");
        if (sndWrite(silenceBuf.get()) == -1) {
            return stopIfFailed(-1);
        }
        availChkCnt = 0;
    }
    const int ready = snd_pcm_wait(pcmHandle, kWaitTimeoutMs);
    if (ready != 1) {
        return stopIfFailed(missedWait(ready, kLogTag));
    }
    const FrameBuffer::Result taken = frameBuffer.read(pcmBuf.get());
    // After a failure the stop is requested under the frame buffer's lock if `taken` holds it.
    return stopIfFailed(taken.ok() ? playFrame() : -1);
}

// Requests a stop for a negative result. Returns the result.
int UafSrc::stopIfFailed(int result) {
    if (result < 0) {
        intfUpdate(false);
    }
    return result;
}

// The frame in pcmBuf. Returns the frames written, or a negative code.
int UafSrc::playFrame() {
    const int written = sndWrite(pcmBuf.get());
    if (written == -1) {
        return -1;
    }
    if (pcmStallCnt != 0) {
        LOGE("clear timeout, pcmStallCnt=%d\n", pcmStallCnt);
        pcmStallCnt = 0;
    }
    if (written < 0) {
        LOGE("rc=%d\n", written);
    }
    return written;
}

// One period from `buf`. Returns the frames written (a short write is not completed), the result of
// an xrun's recovery (the period is lost), or -1 when the channel must stop.
int UafSrc::sndWrite(const int16_t* buf) {
    const int rc = static_cast<int>(snd_pcm_writei(pcmHandle, buf, kPeriodFrames));
    if (rc >= 0) {
        return rc;
    }
    if (rc == -EPIPE || rc == -ESTRPIPE) {
        availChkCnt = 0;
        return recoverPcm(rc, kLogTag);
    }
    LOGE("stopping, unexpected write error(%s)\n", snd_strerror(rc));
    return -1;
}

}  // namespace uafd
