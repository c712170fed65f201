// SPDX-License-Identifier: Apache-2.0
// Avoids signed overflow everywhere: depths and lengths come from the caller, counters grow for
// months, and the widths of the context's fields are fixed.
#include "buffer/ssrs.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "buffer/resample.h"

namespace {

constexpr int32_t kDefaultFrameSize = 480;
constexpr int32_t kDepthScale = 10000;           // units of avgDepthX10k in a sample
constexpr int32_t kDepthWeight = 100;            // each read counts 1/100 in the average
constexpr int32_t kTonePeriod = 32;              // samples from one block of the tone to the next
constexpr int32_t kToneBlock = kTonePeriod / 2;  // of which this many are overlaid

// One period of a cosine of amplitude 1000. Only its first half is ever played, so that the pattern
// alternates with the audio below it.
constexpr int16_t kTone[kTonePeriod] = {
    1000,  981,  924,  831,  707,  556,  383,  195,  0, -195, -383, -556, -707, -831, -924, -981,
    -1000, -981, -924, -831, -707, -556, -383, -195, 0, 195,  383,  556,  707,  831,  924,  981};

// What one read takes from the queue and how it steps through it.
struct Take {
    int32_t count;
    uint32_t step;
};

size_t bytesOf(int32_t samples) {
    return static_cast<size_t>(samples) * sizeof(int16_t);
}

// The length of `samples` for the queue. What 31 bits cannot hold becomes a length that the queue
// refuses: no multiple of 4, and larger than any storage.
int32_t queueBytes(int32_t samples) {
    return static_cast<int32_t>(std::min<size_t>(bytesOf(samples), INT32_MAX));
}

void addWrapping(int32_t& counter, int32_t n) {
    counter = static_cast<int32_t>(static_cast<uint32_t>(counter) + static_cast<uint32_t>(n));
}

void SSRSSetFrameSize(SSRS_Ctx* ctx, int32_t n) {
    ctx->frameSize = n;
    ctx->stepNominal = uafd::resampleStep(n, n);
    ctx->stepCompress = uafd::resampleStep(n + 1, n);
    ctx->stepStretch = uafd::resampleStep(n - 1, n);
}

void SSRSInit(SSRS_Ctx* ctx) {
    SSRSSetFrameSize(ctx, kDefaultFrameSize);
}

// A refused length leaves the queue on its previous storage, emptied.
void SSRSSetQBuff(SSRS_Ctx* ctx, int16_t* storage, int32_t len) {
    QUEUE_SetBuffer(ctx->queue, storage, queueBytes(len));
    QUEUE_Clear(ctx->queue);
    ctx->qBuff = storage;
    ctx->qBuffLen = len;
    memset(storage, 0, bytesOf(len));
}

void SSRSSetQDepth(SSRS_Ctx* ctx, int32_t low, int32_t high) {
    QUEUE_Clear(ctx->queue);
    ctx->qDepthLow = low;
    ctx->qDepthHigh = high;
    ctx->primePending = 1;
}

// Pads with silence so that the `n` samples about to be written end at the middle of the range.
// Padding that does not fit is cut short.
void prime(SSRS_Ctx* ctx, int32_t n) {
    constexpr int16_t silence = 0;
    const int32_t middle = ctx->qDepthLow + (ctx->qDepthHigh - ctx->qDepthLow) / 2;
    for (int32_t pad = middle - n; pad >= 1; pad--) {
        if (QUEUE_EnqueueFromBuff(ctx->queue, &silence, sizeof(silence)) != QUEUE_OK) {
            return;
        }
    }
}

int32_t SSRSWrite(SSRS_Ctx* ctx, const int16_t* data, int32_t n) {
    ctx->wrSamples += static_cast<uint32_t>(n);
    ctx->wrCalls += 1;
    if (ctx->primePending != 0) {
        ctx->primePending = 0;
        prime(ctx, n);
    }
    // Only a full queue is the writer's concern; any other refusal counts as written.
    if (QUEUE_EnqueueFromBuff(ctx->queue, data, queueBytes(n)) == QUEUE_FULL) {
        ctx->overruns += 1;
        return SSRS_QUEUE_FULL;
    }
    return SSRS_OK;
}

int32_t queuedSamples(const SSRS_Ctx* ctx) {
    uint32_t bytes = 0;
    QUEUE_GetDepth(ctx->queue, &bytes);
    return static_cast<int32_t>(bytes / sizeof(int16_t));
}

// The target saturates, so that the average never leaves 0 to INT32_MAX.
void averageDepth(SSRS_Ctx* ctx, int32_t depth) {
    const int64_t scaled = std::min<int64_t>(int64_t{depth} * kDepthScale, INT32_MAX);
    ctx->avgDepthX10k += (static_cast<int32_t>(scaled) - ctx->avgDepthX10k) / kDepthWeight;
}

Take chooseTake(SSRS_Ctx* ctx, int32_t depth) {
    if (ctx->fixedRate == 0 && depth > ctx->qDepthHigh) {
        ctx->compressCnt += 1;
        return {ctx->frameSize + 1, ctx->stepCompress};
    }
    if (ctx->fixedRate == 0 && depth < ctx->qDepthLow) {
        addWrapping(ctx->stretchCnt, 1);
        return {ctx->frameSize - 1, ctx->stepStretch};
    }
    return {ctx->frameSize, ctx->stepNominal};
}

void requestPrime(SSRS_Ctx* ctx) {
    if (ctx->primePending < INT32_MAX) {
        ctx->primePending += 1;
    }
}

// A read of an empty queue is not counted, and takes one off stretchCnt, even when no stretch was
// counted (fixed rate, or a range that starts at 0). Readers of the statistics expect that.
void countRead(SSRS_Ctx* ctx, int32_t depth, int32_t count) {
    if (depth == 0) {
        addWrapping(ctx->stretchCnt, -1);
        requestPrime(ctx);
        return;
    }
    ctx->rdCalls += 1;
    ctx->rdSamples += static_cast<uint32_t>(std::min(depth, count));
    if (depth < count) {
        ctx->underruns += 1;
        requestPrime(ctx);
    }
}

// A whole block is written even where the frame ends inside it; see SSRS_Read.
void overlayTestTone(int16_t* out, int32_t frameSize) {
    for (int32_t start = 0; start < frameSize; start += kTonePeriod) {
        memcpy(out + start, kTone, bytesOf(kToneBlock));
    }
}

int32_t SSRSRead(SSRS_Ctx* ctx, int16_t* out) {
    const int32_t depth = queuedSamples(ctx);
    averageDepth(ctx, depth);
    const Take take = chooseTake(ctx, depth);
    countRead(ctx, depth, take.count);
    int16_t* const taken = take.count == ctx->frameSize ? out : ctx->frameWork;
    // The queue refuses more than its storage holds, and a stretched frame of one sample takes
    // nothing. The frame is then silence, never the remains of an earlier one.
    if (take.count == 0 ||
        QUEUE_DequeueToBuff(ctx->queue, taken, queueBytes(take.count)) != QUEUE_OK) {
        memset(out, 0, bytesOf(ctx->frameSize));
    } else if (taken != out) {
        uafd::resample(taken, take.count, take.step, out, ctx->frameSize);
    }
    if (ctx->testTone != 0) {
        overlayTestTone(out, ctx->frameSize);
    }
    return SSRS_OK;
}

}  // namespace

uint32_t SSRS_GetContextSize(void) {
    return static_cast<uint32_t>(offsetof(SSRS_Ctx, queueCtx)) + QUEUE_GetContextSize();
}

int32_t SSRS_InitContext(SSRS_Ctx* ctx) {
    if (ctx == nullptr) {
        return SSRS_NULL_CONTEXT;
    }
    memset(ctx, 0, offsetof(SSRS_Ctx, queueCtx));
    ctx->queue = &ctx->queueCtx;
    QUEUE_InitContext(ctx->queue);
    SSRSInit(ctx);
    return SSRS_OK;
}

int32_t SSRS_SetFrameSize(SSRS_Ctx* ctx, int32_t n) {
    if (ctx == nullptr) {
        return SSRS_NULL_CONTEXT;
    }
    if (n < 1 || n > SSRS_FRAME_SIZE_MAX) {
        return SSRS_BAD_PARAMETER;
    }
    SSRSSetFrameSize(ctx, n);
    return SSRS_OK;
}

int32_t SSRS_SetQBuff(SSRS_Ctx* ctx, int16_t* storage, int32_t len) {
    if (ctx == nullptr) {
        return SSRS_NULL_CONTEXT;
    }
    if (storage == nullptr) {
        return SSRS_NULL_DATA;
    }
    if (len < 1) {
        return SSRS_BAD_PARAMETER;
    }
    SSRSSetQBuff(ctx, storage, len);
    return SSRS_OK;
}

int32_t SSRS_SetQDepth(SSRS_Ctx* ctx, int32_t low, int32_t high) {
    if (ctx == nullptr) {
        return SSRS_NULL_CONTEXT;
    }
    if (low < 0 || high < 0 || low > high || high > ctx->qBuffLen) {
        return SSRS_BAD_PARAMETER;
    }
    if (ctx->qBuff == nullptr) {
        return SSRS_NO_STORAGE;
    }
    SSRSSetQDepth(ctx, low, high);
    ctx->avgDepthX10k = 0;
    return SSRS_OK;
}

int32_t SSRS_Write(SSRS_Ctx* ctx, const int16_t* data, int32_t n) {
    if (ctx == nullptr) {
        return SSRS_NULL_CONTEXT;
    }
    if (data == nullptr) {
        ctx->wrErrors += 1;
        return SSRS_NULL_DATA;
    }
    if (n < 0 || n > ctx->qBuffLen) {
        ctx->wrErrors += 1;
        return SSRS_BAD_PARAMETER;
    }
    return n == 0 ? SSRS_OK : SSRSWrite(ctx, data, n);
}

int32_t SSRS_Read(SSRS_Ctx* ctx, int16_t* out) {
    if (ctx == nullptr) {
        return SSRS_NULL_CONTEXT;
    }
    if (out == nullptr) {
        ctx->rdErrors += 1;
        return SSRS_NULL_DATA;
    }
    return SSRSRead(ctx, out);
}

int32_t SSRS_StatsGet(const SSRS_Ctx* ctx, SSRS_Stats* stats) {
    if (ctx == nullptr) {
        return SSRS_NULL_CONTEXT;
    }
    if (stats == nullptr) {
        return SSRS_NULL_DATA;
    }
    stats->wrSamples = ctx->wrSamples;
    stats->wrCalls = ctx->wrCalls;
    stats->wrErrors = ctx->wrErrors;
    stats->rdSamples = ctx->rdSamples;
    stats->rdCalls = ctx->rdCalls;
    stats->rdErrors = ctx->rdErrors;
    stats->avgDepth = ctx->avgDepthX10k / kDepthScale;
    stats->stretchCnt = ctx->stretchCnt;
    stats->compressCnt = ctx->compressCnt;
    stats->overruns = ctx->overruns;
    stats->underruns = ctx->underruns;
    stats->reserved1 = ctx->reserved1;
    stats->reserved2 = ctx->reserved2;
    stats->ratio = ctx->ratioDiv == 0 ? 0 : ctx->ratioSum / ctx->ratioDiv;
    return SSRS_OK;
}
