// SPDX-License-Identifier: Apache-2.0
// The daemon's frame buffer and queue, and the least that the jobs can cost: the copies alone, and
// the copies with an interpolation that is written by hand for the vector unit.
#pragma once

#include <algorithm>
#include <cstdint>

#include "bench/host/interpolate_simd.h"
#include "bench/host/job.h"
#include "bench/host/sample_ring.h"
#include "buffer/queue.h"
#include "buffer/ssrs.h"

namespace bench {

// The target range is chosen so that every depth is right, too low or too high.
class OwnFrameBuffer {
  public:
    explicit OwnFrameBuffer(Correction correction) {
        SSRS_InitContext(&ctx);
        SSRS_SetFrameSize(&ctx, kFrame);
        SSRS_SetQBuff(&ctx, storage, kStorage);
        const int32_t low = correction == Correction::kStretched ? kStorage : 0;
        const int32_t high = correction == Correction::kSqueezed ? 0 : kStorage;
        SSRS_SetQDepth(&ctx, low, high);
        ctx.primePending = 0;  // no silence first: a storage full of it would be in range
    }
    OwnFrameBuffer(const OwnFrameBuffer&) = delete;
    OwnFrameBuffer& operator=(const OwnFrameBuffer&) = delete;

    int32_t held() const { return ctx.queueCtx.depth / 2; }
    void write(const int16_t* block) { SSRS_Write(&ctx, block, kBlock); }
    void read(int16_t* frame) { SSRS_Read(&ctx, frame); }

  private:
    SSRS_Ctx ctx;
    alignas(64) int16_t storage[kStorage];
};

// Copies the samples that a frame takes, but no more than the frame holds.
class BareCopies {
  public:
    explicit BareCopies(Correction correction)
        : taken(unknown(std::min(takenBy(correction), kFrame))), block(unknown(kBlock)) {}

    int32_t held() const { return ring.held(); }
    void write(const int16_t* from) { ring.put(from, block); }
    void read(int16_t* frame) { ring.take(frame, taken); }

  private:
    SampleRing ring;
    const int32_t taken;
    const int32_t block;
};

// Interpolates straight from the ring wherever the samples are contiguous there.
class HandWrittenSimd {
  public:
    explicit HandWrittenSimd(Correction correction)
        : taken(unknown(takenBy(correction))), block(unknown(kBlock)) {}

    int32_t held() const { return ring.held(); }
    void write(const int16_t* from) { ring.put(from, block); }

    void read(int16_t* frame) {
        if (taken == kFrame) {
            ring.take(frame, taken);
        } else if (ring.contiguous() >= taken) {
            interpolateSimd(ring.next(), taken, frame);
            ring.drop(taken);
        } else {
            int16_t work[kFrame + 1];
            ring.take(work, taken);
            interpolateSimd(work, taken, frame);
        }
    }

  private:
    SampleRing ring;
    const int32_t taken;
    const int32_t block;
};

class OwnQueue {
  public:
    OwnQueue() {
        QUEUE_InitContext(&ctx);
        QUEUE_SetBuffer(&ctx, storage, sizeof(storage));
        QUEUE_Clear(&ctx);
    }
    OwnQueue(const OwnQueue&) = delete;
    OwnQueue& operator=(const OwnQueue&) = delete;

    void put(const int16_t* from, int32_t n) { QUEUE_EnqueueFromBuff(&ctx, from, n * 2); }
    void take(int16_t* to, int32_t n) { QUEUE_DequeueToBuff(&ctx, to, n * 2); }

  private:
    QUEUE_Ctx ctx;
    alignas(64) int16_t storage[kStorage];
};

}  // namespace bench
