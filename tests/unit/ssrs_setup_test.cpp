// SPDX-License-Identifier: Apache-2.0
// Setting up the frame stream buffer: its records, the codes and the order of the checks, storage
// of every kind of length, and the target range.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>

#include "buffer/ssrs.h"
#include "tests/unit/guarded.h"
#include "tests/unit/ssrs_fixture.h"

// Calls both buffer modules from C, in buffer_from_c.c. Returns 0, or the line of the first call
// that went wrong.
extern "C" int bufferFromC();

namespace uafd {

// These exist only in programs with the thread sanitizer.
extern "C" {
__attribute__((weak)) void AnnotateIgnoreWritesBegin(const char* file, int line);
__attribute__((weak)) void AnnotateIgnoreWritesEnd(const char* file, int line);
}

namespace {

using SsrsSetupTest = SsrsFixture;

// Both records are part of the interface: callers allocate one by its size and print the other.
static_assert(sizeof(SSRS_Stats) == 56);
static_assert(offsetof(SSRS_Stats, rdSamples) == 12);
static_assert(offsetof(SSRS_Stats, avgDepth) == 24);
static_assert(offsetof(SSRS_Stats, underruns) == 40);
static_assert(offsetof(SSRS_Stats, ratio) == 52);
static_assert(offsetof(SSRS_Ctx, qBuff) == 8);
static_assert(offsetof(SSRS_Ctx, primePending) == 28);
static_assert(offsetof(SSRS_Ctx, stepStretch) == 40);
static_assert(offsetof(SSRS_Ctx, testTone) == 44);
static_assert(offsetof(SSRS_Ctx, avgDepthX10k) == 72);
static_assert(offsetof(SSRS_Ctx, ratioSum) == 100);
static_assert(offsetof(SSRS_Ctx, frameWork) == 104);
static_assert(offsetof(SSRS_Ctx, queue) == 104 + 1928);
static_assert(offsetof(SSRS_Ctx, fixedRate) == offsetof(SSRS_Ctx, queue) + 8);
static_assert(offsetof(SSRS_Ctx, ratioDiv) == offsetof(SSRS_Ctx, queue) + 12);
static_assert(offsetof(SSRS_Ctx, queueCtx) == offsetof(SSRS_Ctx, queue) + 16);

TEST_F(SsrsSetupTest, CodesHaveTheirFixedNumbers) {
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 6}),
              (std::vector<int>{SSRS_OK, SSRS_NULL_CONTEXT, SSRS_NULL_DATA, SSRS_BAD_PARAMETER,
                                SSRS_NO_STORAGE, SSRS_QUEUE_FULL}));
}

TEST_F(SsrsSetupTest, BothModulesServeC) {
    EXPECT_EQ(0, bufferFromC());
}

TEST_F(SsrsSetupTest, ContextSizeIsTheFixedPartAndTheQueues) {
    EXPECT_EQ(offsetof(SSRS_Ctx, queueCtx) + QUEUE_GetContextSize(), SSRS_GetContextSize());
    EXPECT_GE(SSRS_GetContextSize(), sizeof(SSRS_Ctx));
}

std::vector<uint8_t> bytesOf(const SSRS_Ctx& ctx) {
    const auto* const first = reinterpret_cast<const uint8_t*>(&ctx);
    return {first, first + sizeof(ctx)};
}

TEST_F(SsrsSetupTest, InitSetsTheDefaultsInRawMemory) {
    SSRS_Ctx expected;
    memset(&expected, 0, sizeof(expected));
    expected.frameSize = 480;
    expected.stepNominal = 65536;
    expected.stepCompress = 65673;
    expected.stepStretch = 65399;
    expected.queue = &ctx->queueCtx;
    EXPECT_EQ(bytesOf(expected), bytesOf(*ctx));
}

TEST_F(SsrsSetupTest, NullContextIsReportedBeforeAnyOtherFault) {
    EXPECT_EQ(1, SSRS_InitContext(nullptr));
    EXPECT_EQ(1, SSRS_SetFrameSize(nullptr, 0));
    EXPECT_EQ(1, SSRS_SetQBuff(nullptr, nullptr, 0));
    EXPECT_EQ(1, SSRS_SetQDepth(nullptr, -1, -1));
    EXPECT_EQ(1, SSRS_Write(nullptr, nullptr, -1));
    EXPECT_EQ(1, SSRS_Read(nullptr, nullptr));
    EXPECT_EQ(1, SSRS_StatsGet(nullptr, nullptr));
}

TEST_F(SsrsSetupTest, FrameSizeFrom1To960IsAccepted) {
    for (const int32_t n : {1, 2, 240, 480, 960}) {
        EXPECT_EQ(0, SSRS_SetFrameSize(ctx, n));
        EXPECT_EQ(n, ctx->frameSize);
    }
    for (const int32_t n : {0, 961, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(3, SSRS_SetFrameSize(ctx, n)) << n;
        EXPECT_EQ(960, ctx->frameSize);
    }
}

TEST_F(SsrsSetupTest, FrameSizeSetsTheSteps) {
    struct Row {
        int32_t frameSize;
        uint32_t nominal, compress, stretch;
    };
    constexpr Row rows[] = {
        {240, 65536, 65810, 65262}, {480, 65536, 65673, 65399}, {960, 65536, 65604, 65468},
        {1, 0, 4294967295, 0},      {2, 65536, 131072, 0},
    };
    for (const Row& row : rows) {
        ASSERT_EQ(0, SSRS_SetFrameSize(ctx, row.frameSize));
        EXPECT_EQ(row.nominal, ctx->stepNominal);
        EXPECT_EQ(row.compress, ctx->stepCompress);
        EXPECT_EQ(row.stretch, ctx->stepStretch);
    }
}

TEST_F(SsrsSetupTest, StorageIsCheckedForNullThenLength) {
    EXPECT_EQ(2, SSRS_SetQBuff(ctx, nullptr, 0));
    EXPECT_EQ(3, SSRS_SetQBuff(ctx, storage.data(), 0));
    EXPECT_EQ(3, SSRS_SetQBuff(ctx, storage.data(), -2));
    EXPECT_EQ(3, SSRS_SetQBuff(ctx, storage.data(), INT32_MIN));
    EXPECT_EQ(nullptr, ctx->qBuff);
    EXPECT_EQ(0, ctx->qBuffLen);
}

TEST_F(SsrsSetupTest, StorageIsZeroedOverItsLengthAndEmptiesTheQueue) {
    setUpHolding(ramp(480));
    std::fill(storage.begin(), storage.end(), int16_t{7});
    EXPECT_EQ(0, SSRS_SetQBuff(ctx, storage.data(), kStorageSamples));
    EXPECT_EQ(0, depth());
    EXPECT_EQ(joined(Samples(kStorageSamples, 0), Samples(kStorageSamples, 7)), storage.toVector());
    EXPECT_EQ(storage.data(), ctx->qBuff);
    EXPECT_EQ(kStorageSamples, ctx->qBuffLen);
    EXPECT_EQ(kStorageSamples * 2, ctx->queue->size);
}

TEST_F(SsrsSetupTest, OddLengthIsNotedAndZeroedButNotQueuedInto) {
    setUpHolding(ramp(480));
    Guarded<int16_t> odd(961, 7);
    EXPECT_EQ(0, SSRS_SetQBuff(ctx, odd.data(), 961));
    EXPECT_EQ(odd.data(), ctx->qBuff);
    EXPECT_EQ(961, ctx->qBuffLen);
    EXPECT_EQ(Samples(961), odd.toVector());
    EXPECT_TRUE(odd.intact());
    EXPECT_EQ(0, depth());

    EXPECT_EQ(0, write(ramp(600)));
    EXPECT_EQ(600, depth());
    EXPECT_EQ(Samples(961), odd.toVector());
    EXPECT_EQ(ramp(kFrameSamples), read());
}

TEST_F(SsrsSetupTest, BlockLargerThanThePreviousStorageCountsAsWrittenAndIsLost) {
    setUpEmpty();
    Guarded<int16_t> odd(1001);
    ASSERT_EQ(0, SSRS_SetQBuff(ctx, odd.data(), 1001));
    EXPECT_EQ(0, write(ramp(1001)));
    EXPECT_EQ(0, depth());
    EXPECT_EQ(1001u, stats().wrSamples);
    EXPECT_EQ(1u, stats().wrCalls);
    EXPECT_EQ(0u, stats().overruns);
}

TEST_F(SsrsSetupTest, OddLengthAsTheFirstStorageLeavesAQueueThatHoldsNothing) {
    ASSERT_EQ(0, SSRS_SetQBuff(ctx, storage.data(), 961));
    EXPECT_EQ(0, SSRS_SetQDepth(ctx, kDepthLow, kDepthHigh));
    EXPECT_EQ(0, write(ramp(480)));
    EXPECT_EQ(0, depth());
    EXPECT_EQ(Samples(480), read());
}

// 2 GiB of address space in which the same 1 MiB repeats, except for the last one.
class HugeStorage {
  public:
    static constexpr int32_t kSamples = 1 << 30;

    HugeStorage() : fd(memfd_create("storage", 0)), base(mapAt(nullptr, kBytes, -1)) {
        EXPECT_EQ(0, ftruncate(fd, static_cast<off_t>(kChunk)));
        for (size_t offset = 0; offset < kBytes - kChunk; offset += kChunk) {
            mapAt(base + offset, kChunk, fd);
        }
        samples()[kSamples - 1] = 7;
    }
    ~HugeStorage() {
        munmap(base, kBytes);
        close(fd);
    }
    int16_t* samples() { return reinterpret_cast<int16_t*>(base); }

  private:
    static constexpr size_t kBytes = size_t{kSamples} * sizeof(int16_t);
    static constexpr size_t kChunk = size_t{1} << 20;

    static uint8_t* mapAt(uint8_t* address, size_t bytes, int fd) {
        const int fixed = address == nullptr ? 0 : MAP_FIXED;
        const int kind = fd < 0 ? MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE : MAP_SHARED;
        void* const mapped = mmap(address, bytes, PROT_READ | PROT_WRITE, kind | fixed, fd, 0);
        EXPECT_NE(MAP_FAILED, mapped);
        return static_cast<uint8_t*>(mapped);
    }

    int fd;
    uint8_t* base;
};

// The thread sanitizer would need 8 GiB of shadow memory for the zeroed storage.
int32_t attachWithoutShadow(SSRS_Ctx* ctx, int16_t* samples, int32_t len) {
    const bool annotate = AnnotateIgnoreWritesBegin != nullptr;
    annotate ? AnnotateIgnoreWritesBegin(__FILE__, __LINE__) : void();
    const int32_t status = SSRS_SetQBuff(ctx, samples, len);
    annotate ? AnnotateIgnoreWritesEnd(__FILE__, __LINE__) : void();
    return status;
}

TEST_F(SsrsSetupTest, LengthWhoseBytesExceed31BitsIsZeroedButNotQueuedInto) {
    setUpEmpty();
    HugeStorage huge;
    EXPECT_EQ(0, attachWithoutShadow(ctx, huge.samples(), HugeStorage::kSamples));
    EXPECT_EQ(0, huge.samples()[HugeStorage::kSamples - 1]);
    EXPECT_EQ(HugeStorage::kSamples, ctx->qBuffLen);
    EXPECT_EQ(kStorageSamples * 2, ctx->queue->size);
    EXPECT_EQ(0, SSRS_Write(ctx, huge.samples(), HugeStorage::kSamples));
    EXPECT_EQ(0, depth());
}

TEST_F(SsrsSetupTest, RangeIsCheckedBeforeStorage) {
    for (const auto& [low, high] : std::vector<std::pair<int32_t, int32_t>>{
             {-1, 0}, {0, -1}, {1, 0}, {0, 1}, {480, 720}, {INT32_MIN, INT32_MAX}}) {
        EXPECT_EQ(3, SSRS_SetQDepth(ctx, low, high)) << low << " " << high;
    }
    EXPECT_EQ(4, SSRS_SetQDepth(ctx, 0, 0));
}

TEST_F(SsrsSetupTest, RangeMayReachTheStorageButNotExceedIt) {
    setUpStreaming();
    EXPECT_EQ(0, SSRS_SetQDepth(ctx, kStorageSamples, kStorageSamples));
    EXPECT_EQ(0, SSRS_SetQDepth(ctx, 0, 0));
    for (const auto& [low, high] : std::vector<std::pair<int32_t, int32_t>>{
             {480, 961}, {961, 961}, {961, 960}, {481, 480}, {-1, 480}, {-2, -1}}) {
        EXPECT_EQ(3, SSRS_SetQDepth(ctx, low, high)) << low << " " << high;
    }
    EXPECT_EQ(0, ctx->qDepthLow);
    EXPECT_EQ(0, ctx->qDepthHigh);
}

TEST_F(SsrsSetupTest, RangeEmptiesTheQueueRequestsPrimingAndRestartsTheAverage) {
    setUpHolding(ramp(600));
    read();
    ASSERT_NE(0, ctx->avgDepthX10k);
    const SSRS_Stats before = stats();
    ctx->primePending = 5;
    EXPECT_EQ(0, SSRS_SetQDepth(ctx, 100, 200));
    EXPECT_EQ(100, ctx->qDepthLow);
    EXPECT_EQ(200, ctx->qDepthHigh);
    EXPECT_EQ(0, depth());
    EXPECT_EQ(1, ctx->primePending);
    EXPECT_EQ(0, ctx->avgDepthX10k);
    EXPECT_EQ(before.wrSamples, stats().wrSamples);
    EXPECT_EQ(before.rdSamples, stats().rdSamples);
}

}  // namespace
}  // namespace uafd
