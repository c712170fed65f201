// SPDX-License-Identifier: Apache-2.0
// SSRS: the frame stream buffer, usable from C. Takes mono 16-bit samples in blocks of any size and
// gives them back a frame at a time, holding its depth within a target range: a frame read outside
// the range takes one sample more or fewer and is resampled to the full frame, so latency is
// corrected without an audible gap. Owns no memory: the caller provides context and storage and
// frees both. Knows no OS and logs nothing. Not safe for concurrent use: the owner serialises every
// call, from any thread.
#pragma once

#include <stdint.h>

#include "buffer/queue.h"

#ifdef __cplusplus
extern "C" {
#endif

// What every call returns.
enum SSRS_Status {
    SSRS_OK = 0,             // done
    SSRS_NULL_CONTEXT = 1,   // context pointer is null
    SSRS_NULL_DATA = 2,      // data, output, storage or statistics pointer is null
    SSRS_BAD_PARAMETER = 3,  // a size, length or range out of bounds
    SSRS_NO_STORAGE = 4,     // no storage attached yet
    SSRS_QUEUE_FULL = 6      // the block did not fit and was dropped whole
};

enum SSRS_Limits {
    SSRS_FRAME_SIZE_MAX = 960,     // samples of the largest frame
    SSRS_FRAME_WORK_SAMPLES = 964  // the largest frame and one sample, rounded up
};

// Counts and lengths in samples unless stated otherwise. Counters wrap.
typedef struct SSRS_Ctx {
    int32_t frameSize;      // samples delivered by each read, 1 to SSRS_FRAME_SIZE_MAX
    int16_t* qBuff;         // storage given to SSRS_SetQBuff, null until then
    int32_t qBuffLen;       // length of the storage
    int32_t qDepthLow;      // lower edge of the target depth range
    int32_t qDepthHigh;     // upper edge of the target depth range
    int32_t primePending;   // nonzero: the next write first pads the queue with silence
    uint32_t stepNominal;   // 16.16 step through the samples taken when they are frameSize
    uint32_t stepCompress;  // the same when they are frameSize + 1
    uint32_t stepStretch;   // the same when they are frameSize - 1
    int32_t testTone;       // nonzero: a test pattern overlays each frame; only a debugger sets it
    uint32_t wrSamples;     // samples passed to accepted writes, dropped blocks included
    uint32_t wrCalls;       // accepted writes, dropped blocks included
    uint32_t wrErrors;      // writes refused for a null pointer or a bad length
    uint32_t rdSamples;     // samples that reads found and took
    uint32_t rdCalls;       // reads that found at least one sample
    uint32_t rdErrors;      // reads refused for a null pointer
    int32_t avgDepthX10k;   // running average of the depth, in 1/10000 sample
    int32_t stretchCnt;     // reads below the range; each read of an empty queue takes one off
    uint32_t compressCnt;   // reads above the range
    uint32_t overruns;      // blocks dropped because the queue was full
    uint32_t underruns;     // reads that found some samples, but too few
    uint32_t reserved1;     // always 0; has a place in the statistics
    uint32_t reserved2;     // always 0; has a place in the statistics
    int32_t ratioSum;       // numerator of the last statistic, always 0
    int16_t frameWork[SSRS_FRAME_WORK_SAMPLES];  // samples taken for a frame to be resampled
    QUEUE_Ctx* queue;                            // points to queueCtx
    int32_t fixedRate;                           // nonzero: never correct; only a debugger sets it
    int32_t ratioDiv;                            // denominator of the last statistic, always 0
    QUEUE_Ctx queueCtx;                          // the queue of samples; ends the record
} SSRS_Ctx;

// A copy of the counters, see the context for their meaning.
typedef struct SSRS_Stats {
    uint32_t wrSamples;
    uint32_t wrCalls;
    uint32_t wrErrors;
    uint32_t rdSamples;
    uint32_t rdCalls;
    uint32_t rdErrors;
    int32_t avgDepth;  // average depth, in samples
    int32_t stretchCnt;
    uint32_t compressCnt;
    uint32_t overruns;
    uint32_t underruns;
    uint32_t reserved1;
    uint32_t reserved2;
    int32_t ratio;  // ratioSum / ratioDiv, or 0
} SSRS_Stats;

// Bytes to allocate for a context.
uint32_t SSRS_GetContextSize(void);

// Makes raw memory a context for frames of 480 samples, without storage and with the range 0 to 0.
int32_t SSRS_InitContext(SSRS_Ctx* ctx);

// Sets the samples of a frame, 1 to SSRS_FRAME_SIZE_MAX.
int32_t SSRS_SetFrameSize(SSRS_Ctx* ctx, int32_t n);

// Attaches `len` samples of storage, zeroed, and empties the queue. An odd `len`, and one whose
// bytes exceed 31 bits, is noted but not queued into: the queue keeps its previous storage.
int32_t SSRS_SetQBuff(SSRS_Ctx* ctx, int16_t* storage, int32_t len);

// Sets the target range, discards what is queued, restarts the average and has the next write pad
// the queue to the middle of the range.
int32_t SSRS_SetQDepth(SSRS_Ctx* ctx, int32_t low, int32_t high);

// Appends `n` samples, all of them or, when they do not fit, none (SSRS_QUEUE_FULL).
int32_t SSRS_Write(SSRS_Ctx* ctx, const int16_t* data, int32_t n);

// Writes one frame of frameSize samples to `out`, with silence for what is missing. With testTone
// set, `out` needs room for up to 15 samples more.
int32_t SSRS_Read(SSRS_Ctx* ctx, int16_t* out);

// Copies the counters; resets nothing.
int32_t SSRS_StatsGet(const SSRS_Ctx* ctx, SSRS_Stats* stats);

#ifdef __cplusplus
}
#endif
