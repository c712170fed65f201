// SPDX-License-Identifier: Apache-2.0
#include "channel/frame_buffer.h"

#include <cstdlib>
#include <new>

#include <android/log.h>

#include "channel/stream_shape.h"

namespace {

constexpr char LOG_TAG[] = "UAFSRC";

bool logFailedSsrs(const char* call, int rc) {
    if (rc != SSRS_OK) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s error: %d\n", call, rc);
    }
    return rc != SSRS_OK;
}

}  // namespace

FrameBuffer::Result::~Result() {
    if (held != nullptr) {
        pthread_mutex_unlock(held);
    }
}

FrameBuffer::FrameBuffer() {
    if (pthread_mutex_init(&ssrsMutex, nullptr) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "pthread_mutex_init failed\n");
    }
}

FrameBuffer::~FrameBuffer() {
    release();
    pthread_mutex_destroy(&ssrsMutex);
}

bool FrameBuffer::allocateStorage() {
    if (!ssrsQBuff) {
        ssrsQBuff.reset(new (std::nothrow) int16_t[LARGE_FRAME_BUFFER.storage]());
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
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "Can't allocate %d bytes of memory for SSRS context structure.\n",
                            static_cast<int>(size));
    }
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "init SSRS\n");
    logFailedSsrs("SSRS_InitContext", SSRS_InitContext(ssrsCtx));
    logFailedSsrs("SSRS_SetFrameSize", SSRS_SetFrameSize(ssrsCtx, PERIOD_FRAMES));
    logFailedSsrs("SSRS_SetQBuff",
                  SSRS_SetQBuff(ssrsCtx, ssrsQBuff.get(), SMALL_FRAME_BUFFER.storage));
    logFailedSsrs("SSRS_SetQDepth", SSRS_SetQDepth(ssrsCtx, SMALL_FRAME_BUFFER.depthLow,
                                                   SMALL_FRAME_BUFFER.depthHigh));
}

void FrameBuffer::release() {
    free(ssrsCtx);
    ssrsCtx = nullptr;
}

FrameBuffer::Result FrameBuffer::write(const int16_t* block, unsigned writes) {
    int rc = pthread_mutex_lock(&ssrsMutex);
    if (rc != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "bufferLoop: lock failed: %d\n", rc);
        return Result(false);
    }
    rc = SSRS_Write(ssrsCtx, block, FIFO_BLOCK_FRAMES);
    if (rc != SSRS_OK && rc != SSRS_QUEUE_FULL) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "SSRS_Write error: %d\n", rc);
        return Result(false, &ssrsMutex);
    }
    if (writes >= STATS_PASSES && writes % STATS_PASSES == 0) {
        checkUnderruns(writes);
    }
    rc = pthread_mutex_unlock(&ssrsMutex);
    if (rc != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "bufferLoop: unlock failed: %d\n", rc);
    }
    return Result(rc == 0);
}

void FrameBuffer::checkUnderruns(unsigned writes) {
    SSRS_Stats stats{};
    SSRS_StatsGet(ssrsCtx, &stats);
    if (stats.underruns != seenUnderruns) {
        __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG,
                            "buffer loopcnt %d, Depth %d, Underruns %u, Overruns %u\n",
                            static_cast<int>(writes), static_cast<int>(stats.avgDepth),
                            stats.underruns, stats.overruns);
    }
    if (!enlargeTried && stats.underruns - seenUnderruns >= ENLARGE_UNDERRUNS) {
        enlarge();
        enlargeTried = true;
    }
    seenUnderruns = stats.underruns;
}

// Discards the queued audio; the next write primes the buffer to the middle of the larger range.
void FrameBuffer::enlarge() {
    if (logFailedSsrs("SSRS_SetQBuff",
                      SSRS_SetQBuff(ssrsCtx, ssrsQBuff.get(), LARGE_FRAME_BUFFER.storage)) ||
        logFailedSsrs("SSRS_SetQDepth", SSRS_SetQDepth(ssrsCtx, LARGE_FRAME_BUFFER.depthLow,
                                                       LARGE_FRAME_BUFFER.depthHigh))) {
        return;
    }
    __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, "increased ssrs queue depth\n");
}

FrameBuffer::Result FrameBuffer::read(int16_t* frame) {
    int rc = pthread_mutex_lock(&ssrsMutex);
    if (rc != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "mutex lock failed: %d\n", rc);
        return Result(false);
    }
    rc = SSRS_Read(ssrsCtx, frame);
    if (rc != SSRS_OK) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "SSRS_Read error: %d\n", rc);
        return Result(false, &ssrsMutex);
    }
    rc = pthread_mutex_unlock(&ssrsMutex);
    if (rc != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "mutex unlock failed: %d\n", rc);
    }
    return Result(rc == 0);
}
