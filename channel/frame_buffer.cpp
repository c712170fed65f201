// SPDX-License-Identifier: Apache-2.0
#include "channel/frame_buffer.h"

#include <cstdlib>
#include <new>

#include "channel/log_tags.h"
#include "channel/stream_shape.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr const char* kLogTag = kSourceLogTag;

}  // namespace

FrameBuffer::Result::~Result() {
    if (held != nullptr) {
        pthread_mutex_unlock(held);
    }
}

FrameBuffer::FrameBuffer() {
    if (pthread_mutex_init(&ssrsMutex, nullptr) != 0) {
        LOGE("pthread_mutex_init failed\n");
    }
}

FrameBuffer::~FrameBuffer() {
    release();
    pthread_mutex_destroy(&ssrsMutex);
}

bool FrameBuffer::allocateStorage() {
    if (!ssrsQBuff) {
        ssrsQBuff.reset(new (std::nothrow) int16_t[kLargeFrameBuffer.storage]());
    }
    return ssrsQBuff != nullptr;
}

void FrameBuffer::build() {
    if (ssrsCtx != nullptr) {
        return;
    }
    seenUnderruns = 0;
    enlargeTried = false;
    const uint32_t size = SSRS_GetContextSize();
    ssrsCtx = static_cast<SSRS_Ctx*>(malloc(size));
    if (ssrsCtx == nullptr) {
        LOGE("Can't allocate %d bytes of memory for SSRS context structure.\n",
             static_cast<int>(size));
    }
    LOGD("init SSRS\n");
    int rc = SSRS_InitContext(ssrsCtx);
    if (rc != SSRS_OK) {
        LOGE("SSRS_InitContext error: %d\n", rc);
    }
    rc = SSRS_SetFrameSize(ssrsCtx, kPeriodFrames);
    if (rc != SSRS_OK) {
        LOGE("SSRS_SetFrameSize error: %d\n", rc);
    }
    setStorage(kSmallFrameBuffer);
    setDepth(kSmallFrameBuffer);
}

bool FrameBuffer::setStorage(const FrameBufferSize& size) {
    const int rc = SSRS_SetQBuff(ssrsCtx, ssrsQBuff.get(), size.storage);
    if (rc != SSRS_OK) {
        LOGE("SSRS_SetQBuff error: %d\n", rc);
    }
    return rc == SSRS_OK;
}

bool FrameBuffer::setDepth(const FrameBufferSize& size) {
    const int rc = SSRS_SetQDepth(ssrsCtx, size.depthLow, size.depthHigh);
    if (rc != SSRS_OK) {
        LOGE("SSRS_SetQDepth error: %d\n", rc);
    }
    return rc == SSRS_OK;
}

void FrameBuffer::release() {
    free(ssrsCtx);
    ssrsCtx = nullptr;
}

FrameBuffer::Result FrameBuffer::write(const int16_t* block, unsigned writes) {
    int rc = pthread_mutex_lock(&ssrsMutex);
    if (rc != 0) {
        LOGE("bufferLoop: lock failed: %d\n", rc);
        return Result(false);
    }
    rc = SSRS_Write(ssrsCtx, block, kFifoBlockFrames);
    if (rc != SSRS_OK && rc != SSRS_QUEUE_FULL) {
        LOGE("SSRS_Write error: %d\n", rc);
        return Result(false, &ssrsMutex);
    }
    if (writes >= kStatsPasses && writes % kStatsPasses == 0) {
        checkUnderruns(writes);
    }
    rc = pthread_mutex_unlock(&ssrsMutex);
    if (rc != 0) {
        LOGE("bufferLoop: unlock failed: %d\n", rc);
    }
    return Result(rc == 0);
}

void FrameBuffer::checkUnderruns(unsigned writes) {
    SSRS_Stats stats{};
    SSRS_StatsGet(ssrsCtx, &stats);
    if (stats.underruns != seenUnderruns) {
        LOGD("buffer loopcnt %d, Depth %d, Underruns %u, Overruns %u\n", static_cast<int>(writes),
             static_cast<int>(stats.avgDepth), stats.underruns, stats.overruns);
    }
    if (!enlargeTried && stats.underruns - seenUnderruns >= kEnlargeUnderruns) {
        enlarge();
        enlargeTried = true;
    }
    seenUnderruns = stats.underruns;
}

// Discards the queued audio; the next write primes the buffer to the middle of the larger range.
void FrameBuffer::enlarge() {
    if (setStorage(kLargeFrameBuffer) && setDepth(kLargeFrameBuffer)) {
        LOGD("increased ssrs queue depth\n");
    }
}

FrameBuffer::Result FrameBuffer::read(int16_t* frame) {
    int rc = pthread_mutex_lock(&ssrsMutex);
    if (rc != 0) {
        LOGE("mutex lock failed: %d\n", rc);
        return Result(false);
    }
    rc = SSRS_Read(ssrsCtx, frame);
    if (rc != SSRS_OK) {
        LOGE("SSRS_Read error: %d\n", rc);
        return Result(false, &ssrsMutex);
    }
    rc = pthread_mutex_unlock(&ssrsMutex);
    if (rc != 0) {
        LOGE("mutex unlock failed: %d\n", rc);
    }
    return Result(rc == 0);
}

}  // namespace uafd
