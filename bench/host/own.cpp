// SPDX-License-Identifier: Apache-2.0
// The daemon's frame buffer and queue, and the least that the jobs can cost: the copies alone, and
// the copies with an interpolation that is written by hand for SSE2 and NEON.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "bench/host/contestants.h"
#include "buffer/queue.h"
#include "buffer/ssrs.h"

#if defined(__aarch64__)
#include <arm_neon.h>
#else
#include <emmintrin.h>
#endif

namespace bench {
namespace {

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

// A ring of samples without checks or counters: two copies and what they need to wrap around.
class SampleRing {
  public:
    int32_t held() const { return depth; }

    void put(const int16_t* from, int32_t n) {
        const int32_t head = std::min(n, kStorage - writeAt);
        copy(storage + writeAt, from, head);
        if (head < n) {
            copy(storage, from + head, n - head);
        }
        writeAt = after(writeAt, n);
        depth += n;
    }

    void take(int16_t* to, int32_t n) {
        const int32_t head = std::min(n, kStorage - readAt);
        copy(to, storage + readAt, head);
        if (head < n) {
            copy(to + head, storage, n - head);
        }
        drop(n);
    }

    // Where the next samples are, and how many of them are contiguous.
    const int16_t* next() const { return storage + readAt; }
    int32_t contiguous() const { return std::min(depth, kStorage - readAt); }

    void drop(int32_t n) {
        readAt = after(readAt, n);
        depth -= n;
    }

  private:
    static void copy(int16_t* to, const int16_t* from, int32_t n) {
        memcpy(to, from, static_cast<size_t>(n) * sizeof(int16_t));
    }

    static int32_t after(int32_t at, int32_t n) {
        return at + n < kStorage ? at + n : at + n - kStorage;
    }

    alignas(64) int16_t storage[kStorage]{};
    int32_t readAt = 0;
    int32_t writeAt = 0;
    int32_t depth = 0;
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

// ---- Hand-written interpolation ----------------------------------------------------------------
//
// 238 samples lie between the ends: 29 vectors of 8 and one that overlaps the last of these. Their
// fractions rise or fall by 274 per sample.
//
// NEON multiplies best into 32 bits: half of each fraction is exact and fits into 15 bits, and with
// h for that half the formula becomes (b * h - a * (h - 32768) + 16384) >> 15, with no special case
// for falling samples. SSE2 is faster in 16-bit lanes, with one instruction for each half of the
// product.

constexpr int32_t kInterior = 238;
constexpr int32_t kLanes = 8;

#if defined(__aarch64__)
using Vector = int16x8_t;

Vector ramp(int16_t first, int16_t rise) {
    const int16_t index[kLanes] = {0, 1, 2, 3, 4, 5, 6, 7};
    return vmlaq_n_s16(vdupq_n_s16(first), vld1q_s16(index), rise);
}

Vector add(Vector a, int16_t b) {
    return vaddq_s16(a, vdupq_n_s16(b));
}

void between(const int16_t* in, Vector half, int16_t* out) {
    const Vector a = vld1q_s16(in);
    const Vector b = vld1q_s16(in + 1);
    const Vector rest = veorq_s16(half, vdupq_n_s16(INT16_MIN));  // half - 32768
    const int32x4_t low = vmlsl_s16(vmull_s16(vget_low_s16(b), vget_low_s16(half)), vget_low_s16(a),
                                    vget_low_s16(rest));
    const int32x4_t high = vmlsl_high_s16(vmull_high_s16(b, half), a, rest);
    vst1q_s16(out, vrshrn_high_n_s32(vrshrn_n_s32(low, 15), high, 15));
}
#else
using Vector = __m128i;

Vector ramp(int16_t first, int16_t rise) {
    const Vector index = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
    return _mm_add_epi16(_mm_set1_epi16(first), _mm_mullo_epi16(index, _mm_set1_epi16(rise)));
}

Vector add(Vector a, int16_t b) {
    return _mm_add_epi16(a, _mm_set1_epi16(b));
}

void between(const int16_t* in, Vector half, int16_t* out) {
    const Vector a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    const Vector b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 1));
    const Vector f = _mm_add_epi16(half, half);
    const Vector rise = _mm_sub_epi16(b, a);
    const Vector high = _mm_mulhi_epu16(rise, f);
    const Vector round = _mm_srli_epi16(_mm_mullo_epi16(rise, f), 15);
    const Vector excess = _mm_and_si128(_mm_cmpgt_epi16(a, b), f);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                     _mm_add_epi16(_mm_sub_epi16(a, excess), _mm_add_epi16(high, round)));
}
#endif

// Output i + 1 lies between inputs i and i + 1.
void interior(const int16_t* in, int16_t first, int16_t rise, int16_t* out) {
    Vector half = ramp(first, rise);
    for (int32_t i = 0; i + kLanes <= kInterior; i += kLanes) {
        between(in + i, half, out + i);
        half = add(half, static_cast<int16_t>(kLanes * rise));
    }
    constexpr int32_t last = kInterior - kLanes;
    between(in + last, ramp(static_cast<int16_t>(first + last * rise), rise), out + last);
}

// Makes the 240 samples of `out` from the `count` samples of `in`, 239 or 241, exactly as the frame
// buffer does: a + (((b - a) * fraction + 32768) >> 16). Not inlined, as the frame buffer's is not.
[[gnu::noinline]] void interpolateSimd(const int16_t* in, int32_t count, int16_t* out) {
    out[0] = in[0];
    out[239] = in[count - 1];
    if (count == 239) {
        interior(in, 32768 - 137, -137, out + 1);
    } else {
        interior(in + 1, 137, 137, out + 1);
    }
}

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

}  // namespace

std::vector<FrameContestant> ownFrameBuffers() {
    return {frameContestant<OwnFrameBuffer>(kOurs), frameContestant<BareCopies>(kBareCopies),
            frameContestant<HandWrittenSimd>(kSimd)};
}

std::vector<QueueContestant> ownQueues() {
    return {queueContestant<OwnQueue>(kOurs), queueContestant<SampleRing>(kBareCopies)};
}

}  // namespace bench
