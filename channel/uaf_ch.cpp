// SPDX-License-Identifier: Apache-2.0
#include "channel/uaf_ch.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

#include "alsa/xrun_recovery.h"
#include "buffer/mono_stereo.h"
#include "channel/rt_thread.h"
#include "ipc/uaf_ipc.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr char kLogTag[] = "UAFCH";
constexpr long kNsPerMs = 1000000;

void sleepMs(long ms) {
    const timespec pause{0, ms * kNsPerMs};
    nanosleep(&pause, nullptr);
}

// Holds intfMutex until the end of a scope. Best effort: when the lock fails, its user logs that
// and goes on without the lock, which is then not unlocked.
class IntfLock {
  public:
    // Waits for the lock.
    explicit IntfLock(pthread_mutex_t& mutex) : IntfLock(mutex, pthread_mutex_lock(&mutex)) {}
    // Takes over the lock if the attempt to lock it, which returned `lockResult`, succeeded.
    IntfLock(pthread_mutex_t& mutex, int lockResult) : mutex(mutex), failure(lockResult) {}
    ~IntfLock() {
        const int rc = failure == 0 ? pthread_mutex_unlock(&mutex) : 0;
        if (rc != 0) {
            // Log readers know this text; it is used even when nothing was stopped.
            LOGE("intfMutex unlock failed after stopping the UAFCH: %d\n", rc);
        }
    }
    IntfLock(const IntfLock&) = delete;
    IntfLock& operator=(const IntfLock&) = delete;

    // Why the lock is not held; 0 when it is.
    int error() const { return failure; }

  private:
    pthread_mutex_t& mutex;
    const int failure;
};

}  // namespace

UafCh::UafCh(int channelMsgType) : msgType(static_cast<uint32_t>(channelMsgType)) {
    if (pthread_mutex_init(&intfMutex, nullptr) != 0) {
        LOGE("pthread_mutex_init for intfMutex failed\n");
    }
}

UafCh::~UafCh() {
    pthread_mutex_destroy(&intfMutex);
}

int UafCh::setDevName(const char* newFifoName, const char* newPcmName) {
    fifoName.set(nullptr);
    pcmName.set(nullptr);
    // Threads of the channel are created on this thread only, so none can appear meanwhile; acquire
    // pairs with releaseDevNames.
    if (nameReaders.load(std::memory_order_acquire) == 0) {
        fifoName.freeReplaced();
        pcmName.freeReplaced();
    }
    fifoName.set(newFifoName);
    pcmName.set(newPcmName);
    return 0;
}

int UafCh::intfUpdate(bool on) {
    fifo.lookAgain();
    if (!beginUpdate(on)) {
        return -1;
    }
    const IntfLock lock(intfMutex);
    return update(on, lock.error());
}

int UafCh::requestStop() {
    constexpr long retryMs = 1;
    if (!beginUpdate(false)) {
        return -1;
    }
    int lockResult = pthread_mutex_trylock(&intfMutex);
    while (lockResult == EBUSY) {
        if (fifo.waitsEnded()) {
            return 0;
        }
        sleepMs(retryMs);
        lockResult = pthread_mutex_trylock(&intfMutex);
    }
    const IntfLock lock(intfMutex, lockResult);
    return update(false, lock.error());
}

bool UafCh::beginUpdate(bool on) const {
    LOGD("intfUpdate to %d, current state %d\n", on ? 1 : 0, state.load(std::memory_order_relaxed));
    if (pcmName.load() == nullptr || fifoName.load() == nullptr) {
        LOGE("devName not set\n");
        return false;
    }
    return true;
}

// Carries out the request even when the lock has failed.
int UafCh::update(bool on, int lockError) {
    if (lockError != 0) {
        LOGE("intfMutex lock failed, but best effort at this point: %d\n", lockError);
    }
    return on ? switchOn() : switchOff();
}

int UafCh::switchOff() {
    const int current = state.load(std::memory_order_relaxed);
    switch (current) {
        case UAFCH_RUNNING:
            // An increment that raced with the last cancel must not shorten this stop.
            stopDelayCnt.store(0, std::memory_order_relaxed);
            state.store(UAFCH_STOPPING, std::memory_order_release);
            break;
        case UAFCH_STOPPING:
        case UAFCH_STOPPED:
            break;
        default:
            LOGE("unknown state %d\n", current);
    }
    return 0;
}

int UafCh::switchOn() {
    const int current = state.load(std::memory_order_relaxed);
    switch (current) {
        case UAFCH_RUNNING:
            return 0;
        case UAFCH_STOPPING:
            // The state comes first: the worker must not count its passes until then.
            state.store(UAFCH_RUNNING, std::memory_order_release);
            LOGD("stopDelayCnt = %d\n",
                 static_cast<int>(stopDelayCnt.exchange(0, std::memory_order_relaxed)));
            return 0;
        case UAFCH_STOPPED:
            return start();
        default:
            LOGE("unknown state %d\n", current);
            return 0;
    }
}

int UafCh::start() {
    stopDelayCnt.store(0, std::memory_order_relaxed);
    state.store(UAFCH_RUNNING, std::memory_order_release);
    if (uafStart() < 0) {
        // Nothing is undone: the next uafStart cleans up what this one left open.
        LOGE("failed to start audio");
        state.store(UAFCH_STOPPED, std::memory_order_release);
        return -1;
    }
    UafIpc::queueMsg({msgType, 1});
    if (joinPending) {
        pthread_join(threadId, nullptr);
        joinPending = false;
    }
    holdDevNames();
    if (createRtThread(&threadId, ChThread, this, kLogTag) != 0) {
        releaseDevNames();
        // The stream stays open, and for the app it is on; the next on request finds the stream
        // open and starts it again.
        LOGE("pthread_create failed");
        state.store(UAFCH_STOPPED, std::memory_order_release);
        return -1;
    }
    return 0;
}

void* UafCh::ChThread(void* channel) {
    static_cast<UafCh*>(channel)->uafLoop();
    return nullptr;
}

bool UafCh::isRunning() {
    // Without the lock, which would cost time in every pass. So an on request may come between the
    // count and the lock, and the channel then stops nevertheless.
    if (state.load(std::memory_order_acquire) != UAFCH_STOPPING) {
        return true;
    }
    if (stopDelayCnt.fetch_add(1, std::memory_order_relaxed) + 1 < kStopDelayPasses) {
        return true;
    }
    if (stop() != UAFCH_STOPPING) {
        // An on request came just before the lock; the channel is off until the next one.
        LOGE(
            "ALERT! This should be impossible and can cause inconsistencies in "
            "this channel's state.");
    }
    return false;
}

// Returns the state before the stop.
int UafCh::stop() {
    const IntfLock lock(intfMutex);
    if (lock.error() != 0) {
        LOGE("intfMutex lock failed when attempting to stop the UAFCH: %d\n", lock.error());
    }
    uafStop();
    UafIpc::queueMsg({msgType, 0});
    const int stoppedFrom = state.load(std::memory_order_relaxed);
    LOGD("UAF channel stopped. Current state is (%d)\n", stoppedFrom);
    releaseDevNames();  // nothing after this reads them
    state.store(UAFCH_STOPPED, std::memory_order_release);
    stopDelayCnt.store(0, std::memory_order_relaxed);
    joinPending = true;
    return stoppedFrom;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): a request to one channel
int UafCh::setVolume(int16_t volume, uint32_t type) {
    // The value is the low half alone; receivers ignore the upper one.
    const UsbAudioMsgT msg{type, static_cast<uint16_t>(volume)};
    LOGD("setVolume volume=%d, sending: type=0x%08X, data=0x%08X\n", volume, msg.type, msg.data);
    UafIpc::queueMsg(msg);
    return 0;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): a request to one channel
int UafCh::setMute(bool mute, uint32_t type) {
    const UsbAudioMsgT msg{type, mute ? 1U : 0U};
    LOGD("setMute mute=%d, sending: type=0x%08X, data=0x%08X\n", mute ? 1 : 0, msg.type, msg.data);
    UafIpc::queueMsg(msg);
    return 0;
}

void UafCh::adjCh(int16_t* buf, int inCh, int outCh, int frames) {
    if (inCh == outCh) {
        return;
    }
    if (inCh == 2 && outCh == 1) {
        toMono(buf, std::max(frames, 0));
    } else if (inCh == 1 && outCh == 2) {
        toStereo(buf, std::max(frames, 0));
    } else {
        LOGE("unsupported: inCh=%d, outCh=%d\n", inCh, outCh);
    }
}

void UafCh::pauseForTimeout() {
    sleepMs(kWaitTimeoutMs);
}

int UafCh::recoverPcm(int err, const char* tag) {
    const int rc = xrun_recovery(pcmHandle, err);
    if (rc < 0) {
        LOGE_AS(tag, "ALSA xrun recovery failed (%s)\n", snd_strerror(rc));
    }
    return rc;
}

int UafCh::missedWait(int waitResult, const char* tag) {
    if (waitResult == -EPIPE || waitResult == -ESTRPIPE) {
        const int rc = recoverPcm(waitResult, tag);
        if (rc < 0) {
            LOGE_AS(tag, "rc=%d\n", rc);
        }
        return rc;
    }
    if (pcmStallCnt == 0) {
        LOGD_AS(tag, "timeout0, rc=%d\n", waitResult);
    }
    if (pcmStallCnt < INT_MAX) {
        ++pcmStallCnt;  // reaches the maximum after 248 days of silence
    }
    if (waitResult < 0) {
        pauseForTimeout();  // a removed card fails every wait at once
    }
    return 0;
}

}  // namespace uafd
