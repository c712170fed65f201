// SPDX-License-Identifier: Apache-2.0
// Shared by the tests of the frame stream buffer: a context in raw memory of exactly the reported
// size, storage between guard zones, and calls that move whole blocks and frames.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "buffer/resample.h"
#include "buffer/ssrs.h"
#include "tests/unit/guarded.h"

namespace uafd {

using Samples = std::vector<int16_t>;

inline Samples ramp(int32_t n, int32_t from = 1000) {
    Samples samples(static_cast<size_t>(n));
    std::iota(samples.begin(), samples.end(), static_cast<int16_t>(from));
    return samples;
}

inline Samples resampled(const Samples& in, int32_t frameSize) {
    Samples out(static_cast<size_t>(frameSize));
    const auto count = static_cast<int32_t>(in.size());
    resample(in.data(), count, resampleStep(count, frameSize), out.data(), frameSize);
    return out;
}

inline Samples joined(Samples first, const Samples& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

inline bool same(const SSRS_Stats& a, const SSRS_Stats& b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

class SsrsFixture : public testing::Test {
  protected:
    static constexpr int32_t kFrameSamples = 240;
    static constexpr int32_t kStorageSamples = 960;
    static constexpr int32_t kDepthLow = 480;
    static constexpr int32_t kDepthHigh = 720;

    void SetUp() override {
        ASSERT_NE(nullptr, ctx);
        memset(memory.get(), 0xA5, SSRS_GetContextSize());
        ASSERT_EQ(0, SSRS_InitContext(ctx));
    }
    void TearDown() override { EXPECT_TRUE(storage.intact()); }

    // Sets the buffer up as the microphone's channel does.
    void setUpStreaming() {
        ASSERT_EQ(0, SSRS_SetFrameSize(ctx, kFrameSamples));
        ASSERT_EQ(0, SSRS_SetQBuff(ctx, storage.data(), kStorageSamples));
        ASSERT_EQ(0, SSRS_SetQDepth(ctx, kDepthLow, kDepthHigh));
    }

    // Sets up a buffer that streams: it holds `samples` and needs no more priming.
    void setUpHolding(const Samples& samples) {
        setUpEmpty();
        ASSERT_EQ(0, write(samples));
    }

    void setUpEmpty() {
        setUpStreaming();
        ctx->primePending = 0;
    }

    int32_t write(const Samples& samples) {
        return SSRS_Write(ctx, samples.data(), static_cast<int32_t>(samples.size()));
    }

    Samples read() {
        Guarded<int16_t> out(static_cast<size_t>(ctx->frameSize), 0x1234);
        EXPECT_EQ(0, SSRS_Read(ctx, out.data()));
        EXPECT_TRUE(out.intact());
        return out.toVector();
    }

    int32_t depth() {
        uint32_t bytes = 0;
        EXPECT_EQ(0, QUEUE_GetDepth(ctx->queue, &bytes));
        return static_cast<int32_t>(bytes / 2);
    }

    SSRS_Stats stats() {
        SSRS_Stats copy;
        memset(&copy, 0xA5, sizeof(copy));
        EXPECT_EQ(0, SSRS_StatsGet(ctx, &copy));
        return copy;
    }

    Guarded<int16_t> storage{2 * kStorageSamples};
    std::unique_ptr<void, void (*)(void*)> memory{malloc(SSRS_GetContextSize()), free};
    SSRS_Ctx* ctx = static_cast<SSRS_Ctx*>(memory.get());
};

}  // namespace uafd
