// SPDX-License-Identifier: Apache-2.0
// The frame stream buffer at work: priming, latency control, starvation, the counters, and the
// limits of every frame size. Set-up is in ssrs_setup_test, random use in ssrs_model_test.
#include "buffer/ssrs.h"

#include <algorithm>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/guarded.h"
#include "tests/unit/ssrs_fixture.h"

namespace uafd {
namespace {

using SsrsTest = SsrsFixture;

TEST_F(SsrsTest, RefusedWritesCountAsWriteErrors) {
    setUpStreaming();
    const Samples block(kStorageSamples + 1);
    EXPECT_EQ(2, SSRS_Write(ctx, nullptr, -1));
    EXPECT_EQ(1u, stats().wrErrors);
    EXPECT_EQ(2, SSRS_Write(ctx, nullptr, 0));
    EXPECT_EQ(3, SSRS_Write(ctx, block.data(), -1));
    EXPECT_EQ(3, SSRS_Write(ctx, block.data(), INT32_MIN));
    EXPECT_EQ(3, SSRS_Write(ctx, block.data(), kStorageSamples + 1));
    EXPECT_EQ(3, SSRS_Write(ctx, block.data(), INT32_MAX));
    EXPECT_EQ(6u, stats().wrErrors);
    EXPECT_EQ(0u, stats().wrCalls);
    EXPECT_EQ(0u, stats().wrSamples);
    EXPECT_EQ(1, ctx->primePending);
}

TEST_F(SsrsTest, EmptyWriteSucceedsAndCountsNothing) {
    setUpStreaming();
    const SSRS_Stats before = stats();
    const int16_t sample = 1;
    EXPECT_EQ(0, SSRS_Write(ctx, &sample, 0));
    EXPECT_TRUE(same(before, stats()));
    EXPECT_EQ(1, ctx->primePending);
    EXPECT_EQ(0, depth());
}

TEST_F(SsrsTest, WriteBeforeStorageIsRefused) {
    EXPECT_EQ(3, write({1}));
    EXPECT_EQ(1u, stats().wrErrors);
}

TEST_F(SsrsTest, RefusedReadCountsAsReadError) {
    setUpHolding(ramp(600));
    EXPECT_EQ(2, SSRS_Read(ctx, nullptr));
    EXPECT_EQ(1u, stats().rdErrors);
    EXPECT_EQ(0u, stats().rdCalls);
    EXPECT_EQ(600, depth());
    EXPECT_EQ(0, ctx->avgDepthX10k);
}

// From the middle the depth can drift both ways before anything is corrected.
TEST_F(SsrsTest, FirstWritePrimesToTheMiddleOfTheRange) {
    setUpStreaming();
    EXPECT_EQ(0, write(ramp(480)));
    EXPECT_EQ(600, depth());
    EXPECT_EQ(0, ctx->primePending);
    EXPECT_EQ(joined(Samples(120), ramp(120)), read());
    EXPECT_EQ(480u, stats().wrSamples);
    EXPECT_EQ(1u, stats().wrCalls);

    EXPECT_EQ(0, write(ramp(480)));
    EXPECT_EQ(600 - 240 + 480, depth());
}

TEST_F(SsrsTest, PrimingRoundsTheMiddleDown) {
    setUpStreaming();
    ASSERT_EQ(0, SSRS_SetQDepth(ctx, 2, 5));
    EXPECT_EQ(0, write({7}));
    EXPECT_EQ(3, depth());
}

TEST_F(SsrsTest, BlockOfTheMiddleOrMoreIsNotPadded) {
    for (const int32_t n : {600, 601, 960}) {
        setUpStreaming();
        EXPECT_EQ(0, write(ramp(n)));
        EXPECT_EQ(n, depth());
        EXPECT_EQ(0, ctx->primePending);
    }
    setUpStreaming();
    EXPECT_EQ(0, write(ramp(599)));
    EXPECT_EQ(600, depth());
}

TEST_F(SsrsTest, PaddingThatDoesNotFitIsCutShort) {
    setUpHolding(ramp(900));
    ctx->primePending = 1;
    EXPECT_EQ(6, write(ramp(10)));
    EXPECT_EQ(960, depth());
    EXPECT_EQ(0, ctx->primePending);
    EXPECT_EQ(1u, stats().overruns);
}

TEST_F(SsrsTest, MiddleOfTheWidestRangeDoesNotOverflow) {
    setUpStreaming();
    ctx->qDepthLow = INT32_MAX - 1;
    ctx->qDepthHigh = INT32_MAX;
    EXPECT_EQ(6, write({7}));
    EXPECT_EQ(960, depth());
}

TEST_F(SsrsTest, BlockThatDoesNotFitIsDroppedWholeAndStillCounted) {
    setUpHolding(ramp(900));
    EXPECT_EQ(6, write(ramp(61, 5000)));
    EXPECT_EQ(1u, stats().overruns);
    EXPECT_EQ(961u, stats().wrSamples);
    EXPECT_EQ(2u, stats().wrCalls);
    EXPECT_EQ(0u, stats().wrErrors);
    EXPECT_EQ(900, depth());
    EXPECT_EQ(resampled(ramp(241), kFrameSamples), read());

    EXPECT_EQ(0, write(ramp(301, 5000)));
    EXPECT_EQ(960, depth());
    EXPECT_EQ(1u, stats().overruns);
}

TEST_F(SsrsTest, DepthWithinTheRangeIsCopiedUnchanged) {
    for (const int32_t held : {480, 600, 720}) {
        setUpHolding(ramp(held));
        EXPECT_EQ(ramp(kFrameSamples), read());
        EXPECT_EQ(held - kFrameSamples, depth());
    }
    EXPECT_EQ(0, stats().stretchCnt);
    EXPECT_EQ(0u, stats().compressCnt);
    EXPECT_EQ(3u * kFrameSamples, stats().rdSamples);
    EXPECT_EQ(3u, stats().rdCalls);
}

// The writer's clock is faster: one sample too many is squeezed into the frame.
TEST_F(SsrsTest, DepthAboveTheRangeTakesOneSampleMore) {
    setUpHolding(ramp(721));
    EXPECT_EQ(resampled(ramp(241), kFrameSamples), read());
    EXPECT_EQ(721 - 241, depth());
    EXPECT_EQ(1u, stats().compressCnt);
    EXPECT_EQ(0, stats().stretchCnt);
    EXPECT_EQ(241u, stats().rdSamples);
}

// The writer's clock is slower: one sample too few is stretched over the frame.
TEST_F(SsrsTest, DepthBelowTheRangeTakesOneSampleFewer) {
    setUpHolding(ramp(479));
    EXPECT_EQ(resampled(ramp(239), kFrameSamples), read());
    EXPECT_EQ(479 - 239, depth());
    EXPECT_EQ(1, stats().stretchCnt);
    EXPECT_EQ(0u, stats().compressCnt);
    EXPECT_EQ(239u, stats().rdSamples);
}

TEST_F(SsrsTest, FixedRateNeverCorrects) {
    for (const int32_t held : {960, 240}) {
        setUpHolding(ramp(held));
        ctx->fixedRate = 1;
        EXPECT_EQ(ramp(kFrameSamples), read());
        EXPECT_EQ(held - kFrameSamples, depth());
    }
    EXPECT_EQ(0, stats().stretchCnt);
    EXPECT_EQ(0u, stats().compressCnt);
}

TEST_F(SsrsTest, DepthOutsideTheRangeIsBroughtBackASampleAFrame) {
    for (const int32_t start : {900, 300}) {
        setUpHolding(ramp(start));
        for (int frame = 0; frame < 200; frame++) {
            read();
            ASSERT_EQ(0, write(ramp(kFrameSamples)));
        }
        EXPECT_EQ(start == 900 ? kDepthHigh : kDepthLow, depth());
    }
}

TEST_F(SsrsTest, EmptyQueueGivesSilenceAndAsksForPriming) {
    setUpEmpty();
    EXPECT_EQ(Samples(kFrameSamples), read());
    EXPECT_EQ(0, stats().stretchCnt);
    EXPECT_EQ(0u, stats().rdCalls);
    EXPECT_EQ(0u, stats().rdSamples);
    EXPECT_EQ(0u, stats().underruns);
    EXPECT_EQ(1, ctx->primePending);
    read();
    EXPECT_EQ(2, ctx->primePending);

    EXPECT_EQ(0, write(ramp(480)));
    EXPECT_EQ(600, depth());
    EXPECT_EQ(0, ctx->primePending);
}

TEST_F(SsrsTest, EmptyReadTakesOffAStretchThatWasNotCounted) {
    setUpEmpty();
    ctx->fixedRate = 1;
    read();
    EXPECT_EQ(-1, stats().stretchCnt);
    ctx->fixedRate = 0;
    ASSERT_EQ(0, SSRS_SetQDepth(ctx, 0, 720));
    read();
    EXPECT_EQ(-2, stats().stretchCnt);
}

TEST_F(SsrsTest, StarvedReadGivesWhatThereIsAndThenSilence) {
    setUpHolding(ramp(100));
    EXPECT_EQ(resampled(joined(ramp(100), Samples(139)), kFrameSamples), read());
    EXPECT_EQ(1u, stats().underruns);
    EXPECT_EQ(1u, stats().rdCalls);
    EXPECT_EQ(100u, stats().rdSamples);
    EXPECT_EQ(1, stats().stretchCnt);
    EXPECT_EQ(1, ctx->primePending);
    EXPECT_EQ(0, depth());
}

TEST_F(SsrsTest, StarvedReadAtTheNominalStepIsPaddedWithSilence) {
    setUpHolding(ramp(100));
    ctx->fixedRate = 1;
    EXPECT_EQ(joined(ramp(100), Samples(140)), read());
    EXPECT_EQ(1u, stats().underruns);
}

TEST_F(SsrsTest, ExactlyTheNeededSamplesAreNoUnderrun) {
    setUpHolding(ramp(239));
    EXPECT_EQ(resampled(ramp(239), kFrameSamples), read());
    EXPECT_EQ(0u, stats().underruns);
    EXPECT_EQ(0, ctx->primePending);
    ASSERT_EQ(0, write(ramp(238)));
    EXPECT_EQ(resampled(joined(ramp(238), {0}), kFrameSamples), read());
    EXPECT_EQ(1u, stats().underruns);
}

TEST_F(SsrsTest, ReadWithoutStorageGivesSilence) {
    EXPECT_EQ(Samples(480), read());
    EXPECT_EQ(-1, stats().stretchCnt);
    EXPECT_EQ(1, ctx->primePending);
}

TEST_F(SsrsTest, FrameLargerThanTheStorageGivesSilenceNeverAnOldFrame) {
    setUpHolding(ramp(300));
    read();
    ASSERT_EQ(0, SSRS_SetQBuff(ctx, storage.data(), 20));
    for (const auto& [low, high] :
         std::vector<std::pair<int32_t, int32_t>>{{20, 20}, {0, 5}, {0, 20}}) {
        ASSERT_EQ(0, SSRS_SetQDepth(ctx, low, high));
        ASSERT_EQ(0, write(ramp(10)));
        const int32_t held = depth();
        EXPECT_EQ(Samples(kFrameSamples), read());
        EXPECT_EQ(held, depth());
    }
    EXPECT_EQ(3u, stats().underruns);
}

TEST_F(SsrsTest, FrameOfOneStretchedTakesNothingAndGivesSilence) {
    setUpHolding(ramp(300));
    read();
    ASSERT_EQ(0, SSRS_SetFrameSize(ctx, 1));
    ctx->ratioSum = -1;  // set before the samples are taken
    const SSRS_Stats before = stats();
    EXPECT_EQ((Samples{0}), read());
    EXPECT_EQ(300 - 239, depth());
    EXPECT_EQ(before.rdCalls + 1, stats().rdCalls);
    EXPECT_EQ(before.rdSamples, stats().rdSamples);
    EXPECT_EQ(before.underruns, stats().underruns);
}

TEST_F(SsrsTest, FramesOfOneAndTwoSqueezedKeepTheEnds) {
    setUpHolding(ramp(800));
    ASSERT_EQ(0, SSRS_SetFrameSize(ctx, 1));
    EXPECT_EQ((Samples{1001}), read());
    ASSERT_EQ(0, SSRS_SetFrameSize(ctx, 2));
    EXPECT_EQ((Samples{1002, 1004}), read());
    EXPECT_EQ(800 - 2 - 3, depth());
}

TEST_F(SsrsTest, NoFrameSizeWritesOutsideTheFrameOrKeepsAnOldSample) {
    for (int32_t n = 1; n <= SSRS_FRAME_SIZE_MAX; n++) {
        SCOPED_TRACE(n);
        setUpHolding(ramp(kStorageSamples));
        ASSERT_EQ(0, SSRS_SetQBuff(ctx, storage.data(), 2 * kStorageSamples));
        ASSERT_EQ(0, SSRS_SetFrameSize(ctx, n));
        ASSERT_EQ(0, write(ramp(1921 - 1)));
        const Samples squeezed = resampled(ramp(n + 1), n);
        std::fill(std::begin(ctx->frameWork), std::end(ctx->frameWork), int16_t{-32768});
        ASSERT_EQ(squeezed, read());
        ASSERT_EQ(int16_t{-32768}, ctx->frameWork[n + 1]);
        ctx->qDepthLow = ctx->qDepthHigh = 2 * kStorageSamples;
        const Samples stretched = n == 1 ? Samples{0} : resampled(ramp(n - 1, 1000 + n + 1), n);
        ASSERT_EQ(stretched, read());
    }
}

TEST_F(SsrsTest, TestToneOverlaysHalfOfEvery32Samples) {
    setUpHolding(ramp(600));
    ctx->testTone = 1;
    const Samples tone = {1000, 981,  924,  831,  707,  556,  383,  195,
                          0,    -195, -383, -556, -707, -831, -924, -981};
    Samples expected = ramp(kFrameSamples);
    for (size_t start = 0; start < kFrameSamples; start += 32) {
        std::copy(tone.begin(), tone.end(), expected.begin() + static_cast<ptrdiff_t>(start));
    }
    EXPECT_EQ(expected, read());
}

TEST_F(SsrsTest, LastBlockOfTheToneIsWholeEvenPastTheFrame) {
    setUpEmpty();
    ctx->testTone = 1;
    for (int32_t n = 1; n <= SSRS_FRAME_SIZE_MAX; n++) {
        ASSERT_EQ(0, SSRS_SetFrameSize(ctx, n));
        const int32_t written = std::max(n, (n - 1) / 32 * 32 + 16);
        ASSERT_LE(written, n + 15);
        Guarded<int16_t> out(static_cast<size_t>(written), 0x1234);
        ASSERT_EQ(0, SSRS_Read(ctx, out.data()));
        ASSERT_TRUE(out.intact()) << n;
        ASSERT_EQ(-981, out[static_cast<size_t>((n - 1) / 32 * 32 + 15)]) << n;
    }
}

TEST_F(SsrsTest, AverageApproachesTheDepthByAHundredthARead) {
    setUpStreaming();
    ctx->primePending = 0;
    int32_t expected = 0;
    for (int frame = 0; frame < 1500; frame++) {
        const int32_t held = frame < 1000 ? 600 : 500;
        ASSERT_EQ(0, write(ramp(held - depth())));
        read();
        expected += (held * 10000 - expected) / 100;
        ASSERT_EQ(expected, ctx->avgDepthX10k);
        ASSERT_EQ(expected / 10000, stats().avgDepth);
        if (frame == 0) {
            EXPECT_EQ(6, stats().avgDepth);
        }
        if (frame == 999) {
            EXPECT_EQ(599, stats().avgDepth);
        }
    }
    EXPECT_EQ(500, stats().avgDepth);
}

TEST_F(SsrsTest, AverageOfAVeryDeepQueueSaturates) {
    Samples deep(1'000'000);
    ASSERT_EQ(0, SSRS_SetQBuff(ctx, deep.data(), 1'000'000));
    ASSERT_EQ(0, SSRS_SetQDepth(ctx, 1, 1'000'000));
    ASSERT_EQ(0, write(Samples(1'000'000)));
    int32_t previous = 0;
    for (int frame = 0; frame < 1500; frame++) {
        read();
        ASSERT_GE(ctx->avgDepthX10k, previous);
        previous = ctx->avgDepthX10k;
    }
    EXPECT_EQ(INT32_MAX / 10000, stats().avgDepth);
}

TEST_F(SsrsTest, PendingPrimesSaturate) {
    setUpEmpty();
    ctx->primePending = INT32_MAX;
    read();
    EXPECT_EQ(INT32_MAX, ctx->primePending);
    ASSERT_EQ(0, write({7}));
    ASSERT_EQ(600, depth());
    EXPECT_EQ(0, ctx->primePending);
}

// The daemon runs for months, longer than 32 bits can count.
TEST_F(SsrsTest, CountersWrap) {
    setUpHolding(ramp(479));
    ctx->stretchCnt = INT32_MAX;
    ctx->rdSamples = ctx->rdCalls = ctx->wrSamples = ctx->wrCalls = UINT32_MAX;
    read();
    EXPECT_EQ(INT32_MIN, stats().stretchCnt);
    EXPECT_EQ(238u, stats().rdSamples);
    EXPECT_EQ(0u, stats().rdCalls);
    ASSERT_EQ(0, write(ramp(10)));
    EXPECT_EQ(9u, stats().wrSamples);
    EXPECT_EQ(0u, stats().wrCalls);

    setUpEmpty();
    ctx->stretchCnt = INT32_MIN;
    ctx->fixedRate = 1;
    read();
    EXPECT_EQ(INT32_MAX, stats().stretchCnt);
}

TEST_F(SsrsTest, StatisticsAreCopiesInTheirPlaces) {
    setUpStreaming();
    ctx->wrSamples = 1;
    ctx->wrCalls = 2;
    ctx->wrErrors = 3;
    ctx->rdSamples = 4;
    ctx->rdCalls = 5;
    ctx->rdErrors = 6;
    ctx->avgDepthX10k = 79'999;
    ctx->stretchCnt = -8;
    ctx->compressCnt = 9;
    ctx->overruns = 10;
    ctx->underruns = 11;
    ctx->reserved1 = 12;
    ctx->reserved2 = 13;
    ctx->ratioSum = -29;
    ctx->ratioDiv = 2;
    EXPECT_TRUE(same({1, 2, 3, 4, 5, 6, 7, -8, 9, 10, 11, 12, 13, -14}, stats()));
    ctx->ratioDiv = 0;
    ctx->avgDepthX10k = -19'999;
    EXPECT_EQ(0, stats().ratio);
    EXPECT_EQ(-1, stats().avgDepth);
}

TEST_F(SsrsTest, ReadingTheStatisticsResetsNothing) {
    setUpHolding(ramp(500));
    read();
    read();
    read();
    const SSRS_Stats first = stats();
    EXPECT_TRUE(same(first, stats()));
    EXPECT_EQ(3u, first.rdCalls);
    EXPECT_EQ(2, SSRS_StatsGet(ctx, nullptr));
}

TEST_F(SsrsTest, CountersSurviveNewStorageAndRange) {
    setUpHolding(ramp(500));
    read();
    read();
    read();
    SSRS_Stats before = stats();
    ASSERT_EQ(0, SSRS_SetQBuff(ctx, storage.data(), 2 * kStorageSamples));
    EXPECT_TRUE(same(before, stats()));
    ASSERT_EQ(0, SSRS_SetQDepth(ctx, 960, 1440));
    before.avgDepth = 0;
    EXPECT_TRUE(same(before, stats()));
    ASSERT_EQ(0, write(ramp(480)));
    EXPECT_EQ(1200, depth());
}

}  // namespace
}  // namespace uafd
