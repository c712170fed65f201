// SPDX-License-Identifier: Apache-2.0
// The byte queue: every code, the order of the checks, what a call leaves unchanged, both copies of
// a block that wraps round the end, and long random use compared with a simple model.
#include "buffer/queue.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/queue_model.h"
#include "tests/unit/guarded.h"

namespace uafd {
namespace {

using Bytes = std::vector<uint8_t>;

// The record is part of the interface: the frame buffer embeds it.
static_assert(offsetof(QUEUE_Ctx, bufStart) == 0 * sizeof(void*));
static_assert(offsetof(QUEUE_Ctx, bufEnd) == 1 * sizeof(void*));
static_assert(offsetof(QUEUE_Ctx, readPtr) == 2 * sizeof(void*));
static_assert(offsetof(QUEUE_Ctx, writePtr) == 3 * sizeof(void*));
static_assert(offsetof(QUEUE_Ctx, size) == 4 * sizeof(void*));
static_assert(offsetof(QUEUE_Ctx, depth) == 4 * sizeof(void*) + 4);

Bytes counting(size_t n, uint8_t from = 1) {
    Bytes bytes(n);
    std::iota(bytes.begin(), bytes.end(), from);
    return bytes;
}

bool same(const QUEUE_Ctx& a, const QUEUE_Ctx& b) {
    return a.bufStart == b.bufStart && a.bufEnd == b.bufEnd && a.readPtr == b.readPtr &&
           a.writePtr == b.writePtr && a.size == b.size && a.depth == b.depth;
}

class QueueTest : public testing::Test {
  protected:
    static constexpr int32_t kStorageBytes = 16;

    void SetUp() override {
        memset(&ctx, 0xA5, sizeof(ctx));
        ASSERT_EQ(QUEUE_OK, QUEUE_InitContext(&ctx));
        ASSERT_EQ(QUEUE_OK, QUEUE_SetBuffer(&ctx, storage.data(), kStorageBytes));
        ASSERT_EQ(QUEUE_OK, QUEUE_Clear(&ctx));
    }
    void TearDown() override { EXPECT_TRUE(storage.intact()); }

    int32_t put(const Bytes& bytes) {
        return QUEUE_EnqueueFromBuff(&ctx, bytes.data(), static_cast<int32_t>(bytes.size()));
    }

    Bytes take(int32_t n) {
        Guarded<uint8_t> out(static_cast<size_t>(n), 0xEE);
        EXPECT_EQ(QUEUE_OK, QUEUE_DequeueToBuff(&ctx, out.data(), n));
        EXPECT_TRUE(out.intact());
        return out.toVector();
    }

    uint32_t depth() {
        uint32_t bytes = 0xDEADBEEF;
        EXPECT_EQ(QUEUE_OK, QUEUE_GetDepth(&ctx, &bytes));
        return bytes;
    }

    // Advances both pointers by `n` bytes.
    void turn(size_t n) {
        ASSERT_EQ(QUEUE_OK, put(Bytes(n)));
        take(static_cast<int32_t>(n));
    }

    QUEUE_Ctx ctx;
    Guarded<uint8_t> storage{kStorageBytes, 0xCC};
};

TEST_F(QueueTest, CodesHaveTheirFixedNumbers) {
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 6}),
              (std::vector<int>{QUEUE_OK, QUEUE_NULL_CONTEXT, QUEUE_NULL_DATA, QUEUE_BAD_SIZE,
                                QUEUE_BAD_LENGTH, QUEUE_FULL}));
}

TEST_F(QueueTest, ContextSizeIsTheRecords) {
    EXPECT_EQ(sizeof(QUEUE_Ctx), QUEUE_GetContextSize());
}

TEST_F(QueueTest, InitZeroesEveryField) {
    memset(&ctx, 0xA5, sizeof(ctx));
    EXPECT_EQ(0, QUEUE_InitContext(&ctx));
    EXPECT_TRUE(same(QUEUE_Ctx{}, ctx));
}

TEST_F(QueueTest, NullContextIsReportedBeforeAnyOtherFault) {
    EXPECT_EQ(1, QUEUE_InitContext(nullptr));
    EXPECT_EQ(1, QUEUE_SetBuffer(nullptr, nullptr, 0));
    EXPECT_EQ(1, QUEUE_Clear(nullptr));
    EXPECT_EQ(1, QUEUE_EnqueueFromBuff(nullptr, nullptr, -1));
    EXPECT_EQ(1, QUEUE_DequeueToBuff(nullptr, nullptr, -1));
    EXPECT_EQ(1, QUEUE_GetDepth(nullptr, nullptr));
}

TEST_F(QueueTest, NullDataIsReportedBeforeSizeAndLength) {
    const QUEUE_Ctx before = ctx;
    EXPECT_EQ(2, QUEUE_SetBuffer(&ctx, nullptr, 6));
    for (const int32_t n : {-1, 0, 1, kStorageBytes + 1}) {
        EXPECT_EQ(2, QUEUE_EnqueueFromBuff(&ctx, nullptr, n));
        EXPECT_EQ(2, QUEUE_DequeueToBuff(&ctx, nullptr, n));
    }
    EXPECT_EQ(2, QUEUE_GetDepth(&ctx, nullptr));
    EXPECT_TRUE(same(before, ctx));
}

TEST_F(QueueTest, RefusedStorageSizeLeavesThePreviousStorage) {
    put(counting(4));
    const QUEUE_Ctx before = ctx;
    uint8_t other[16];
    for (const int32_t size : {0, -1, -4, 1, 2, 3, 5, 6, 7, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(3, QUEUE_SetBuffer(&ctx, other, size)) << size;
        EXPECT_TRUE(same(before, ctx)) << size;
    }
}

TEST_F(QueueTest, NewStorageStartsAtItsFirstByteAndKeepsTheOldDepth) {
    turn(5);
    put(counting(7));
    uint8_t other[8];
    EXPECT_EQ(0, QUEUE_SetBuffer(&ctx, other, 8));
    EXPECT_TRUE(same({other, other + 8, other, other, 8, 7}, ctx));
    EXPECT_EQ(7u, depth());
    EXPECT_EQ(0, QUEUE_Clear(&ctx));
    EXPECT_TRUE(same({other, other + 8, other, other, 8, 0}, ctx));
}

TEST_F(QueueTest, DepthLeftFromLargerStorageStaysWithinTheNew) {
    put(counting(kStorageBytes));
    Guarded<uint8_t> small(8);
    const Bytes held = counting(8, 50);
    std::copy(held.begin(), held.end(), small.begin());
    EXPECT_EQ(0, QUEUE_SetBuffer(&ctx, small.data(), 8));
    EXPECT_EQ(6, put({1}));
    EXPECT_EQ(held, take(8));
    EXPECT_EQ(8u, depth());
    EXPECT_TRUE(small.intact());
}

TEST_F(QueueTest, ClearEmptiesAndLeavesTheStorage) {
    turn(3);
    put(counting(10));
    const Bytes before = storage.toVector();
    EXPECT_EQ(0, QUEUE_Clear(&ctx));
    EXPECT_EQ(0u, depth());
    EXPECT_EQ(storage.data(), ctx.readPtr);
    EXPECT_EQ(storage.data(), ctx.writePtr);
    EXPECT_EQ(before, storage.toVector());
}

TEST_F(QueueTest, GivesBackInOrderWhatItWasGiven) {
    EXPECT_EQ(0, put({1, 2, 3}));
    EXPECT_EQ(0, put({4, 5}));
    EXPECT_EQ(5u, depth());
    EXPECT_EQ((Bytes{1}), take(1));
    EXPECT_EQ((Bytes{2, 3, 4, 5}), take(4));
    EXPECT_EQ(0u, depth());
}

TEST_F(QueueTest, ExactlyTheFreeSpaceFitsAndOneMoreByteDoesNot) {
    turn(5);
    put(counting(6));
    EXPECT_EQ(0, put(counting(kStorageBytes - 6, 7)));
    EXPECT_EQ(ctx.readPtr, ctx.writePtr);
    EXPECT_EQ(uint32_t{kStorageBytes}, depth());

    const QUEUE_Ctx before = ctx;
    const Bytes held = storage.toVector();
    EXPECT_EQ(6, put({99}));
    EXPECT_TRUE(same(before, ctx));
    EXPECT_EQ(held, storage.toVector());
    EXPECT_EQ(counting(kStorageBytes), take(kStorageBytes));
}

TEST_F(QueueTest, BlockThatDoesNotFitIsRefusedWhole) {
    put(counting(10));
    EXPECT_EQ(6, put(counting(7)));
    EXPECT_EQ(10u, depth());
    EXPECT_EQ(0, put(counting(6, 11)));
    EXPECT_EQ(counting(16), take(16));
}

TEST_F(QueueTest, LengthBeyondTheStorageIsABadLengthEvenWhenFull) {
    const Bytes large(kStorageBytes + 1);
    EXPECT_EQ(4, put(large));
    put(counting(kStorageBytes));
    EXPECT_EQ(4, put(large));
    uint8_t out[kStorageBytes + 1];
    EXPECT_EQ(4, QUEUE_DequeueToBuff(&ctx, out, kStorageBytes + 1));
    EXPECT_EQ(4, QUEUE_DequeueToBuff(&ctx, out, INT32_MAX));
    EXPECT_EQ(counting(kStorageBytes), take(kStorageBytes));
}

TEST_F(QueueTest, NegativeLengthIsRefused) {
    put({1});
    const QUEUE_Ctx before = ctx;
    uint8_t byte = 7;
    for (const int32_t n : {-1, -4, INT32_MIN}) {
        EXPECT_EQ(4, QUEUE_EnqueueFromBuff(&ctx, &byte, n));
        EXPECT_EQ(4, QUEUE_DequeueToBuff(&ctx, &byte, n));
    }
    EXPECT_TRUE(same(before, ctx));
    EXPECT_EQ(7, byte);
}

TEST_F(QueueTest, ZeroLengthSucceedsAndChangesNothing) {
    put(counting(kStorageBytes));
    const QUEUE_Ctx before = ctx;
    uint8_t byte = 7;
    EXPECT_EQ(0, QUEUE_EnqueueFromBuff(&ctx, &byte, 0));
    EXPECT_EQ(0, QUEUE_DequeueToBuff(&ctx, &byte, 0));
    EXPECT_TRUE(same(before, ctx));
    EXPECT_EQ(7, byte);
}

TEST_F(QueueTest, WithoutStorageEveryLengthButZeroIsRefused) {
    ASSERT_EQ(0, QUEUE_InitContext(&ctx));
    uint8_t byte = 7;
    EXPECT_EQ(4, QUEUE_EnqueueFromBuff(&ctx, &byte, 1));
    EXPECT_EQ(4, QUEUE_DequeueToBuff(&ctx, &byte, 1));
    EXPECT_EQ(0, QUEUE_EnqueueFromBuff(&ctx, &byte, 0));
    EXPECT_EQ(0u, depth());
    EXPECT_EQ(0, QUEUE_Clear(&ctx));
}

TEST_F(QueueTest, EmptyQueueGivesZeros) {
    turn(9);
    const QUEUE_Ctx before = ctx;
    EXPECT_EQ(Bytes(kStorageBytes), take(kStorageBytes));
    EXPECT_TRUE(same(before, ctx));
}

TEST_F(QueueTest, ShortDequeueGivesWhatIsHeldAndThenZeros) {
    turn(14);
    put({1, 2, 3, 4});
    EXPECT_EQ((Bytes{1, 2, 3, 4, 0, 0, 0, 0, 0, 0}), take(10));
    EXPECT_EQ(0u, depth());
    EXPECT_EQ(ctx.writePtr, ctx.readPtr);
}

TEST_F(QueueTest, BlockAcrossTheEndIsSplitInTwo) {
    turn(12);
    EXPECT_EQ(0, put(counting(7)));
    EXPECT_EQ((Bytes{1, 2, 3, 4}), Bytes(storage.begin() + 12, storage.end()));
    EXPECT_EQ((Bytes{5, 6, 7}), Bytes(storage.begin(), storage.begin() + 3));
    EXPECT_EQ(storage.data() + 3, ctx.writePtr);
    EXPECT_EQ(counting(7), take(7));
    EXPECT_EQ(storage.data() + 3, ctx.readPtr);
}

TEST_F(QueueTest, BlockThatEndsAtTheEndLeavesThePointerAtTheStart) {
    turn(9);
    EXPECT_EQ(0, put(counting(7)));
    EXPECT_EQ(storage.data(), ctx.writePtr);
    EXPECT_EQ(counting(7), take(7));
    EXPECT_EQ(storage.data(), ctx.readPtr);
}

TEST_F(QueueTest, DataMayOverlapTheStorage) {
    put(counting(8));
    EXPECT_EQ(0, QUEUE_EnqueueFromBuff(&ctx, storage.data() + 4, 8));
    EXPECT_EQ((Bytes{1, 2, 3, 4, 5, 6, 7, 8, 5, 6, 7, 8, 0xCC, 0xCC, 0xCC, 0xCC}),
              Bytes(storage.begin(), storage.end()));
    EXPECT_EQ(0, QUEUE_DequeueToBuff(&ctx, storage.data() + 2, 8));
    EXPECT_EQ(counting(8), Bytes(storage.begin() + 2, storage.begin() + 10));
}

TEST_F(QueueTest, FullnessIsFoundAtTheLargestDepthsToo) {
    ctx.size = INT32_MAX - 3;
    ctx.depth = INT32_MAX - 7;
    const QUEUE_Ctx before = ctx;
    uint8_t byte = 7;
    EXPECT_EQ(6, QUEUE_EnqueueFromBuff(&ctx, &byte, INT32_MAX - 3));
    EXPECT_TRUE(same(before, ctx));
}

// One random life of a queue, compared with its model.
class QueueAgainstModel {
  public:
    explicit QueueAgainstModel(uint32_t seed) : random(seed) {
        QUEUE_InitContext(&ctx);
        attach();
    }

    void step() {
        switch (pick(0, 99)) {
            case 0:
                attach();
                break;
            case 1:
                ASSERT_EQ(0, QUEUE_Clear(&ctx));
                model.clear();
                break;
            default:
                pick(0, 1) == 0 ? enqueue(length()) : dequeue(length());
        }
        checkContext();
    }

  private:
    int32_t pick(int32_t low, int32_t high) {
        return std::uniform_int_distribution<int32_t>(low, high)(random);
    }
    int32_t capacity() const { return static_cast<int32_t>(storage.size()); }
    int32_t length() { return pick(-1, pick(0, 3) == 0 ? capacity() + 1 : capacity() / 3); }

    void attach() {
        storage = Guarded<uint8_t>(static_cast<size_t>(4 * pick(1, 40)));
        ASSERT_EQ(model.setBuffer(true, storage.toVector(), capacity()),
                  QUEUE_SetBuffer(&ctx, storage.data(), capacity()));
        ASSERT_EQ(0, QUEUE_Clear(&ctx));
        model.clear();
    }

    void enqueue(int32_t n) {
        Bytes block(static_cast<size_t>(std::max(n, 1)));
        std::generate(block.begin(), block.end(), [this] { return uint8_t(pick(0, 255)); });
        ASSERT_EQ(model.enqueue(block.data(), n), QUEUE_EnqueueFromBuff(&ctx, block.data(), n));
    }

    void dequeue(int32_t n) {
        Guarded<uint8_t> out(static_cast<size_t>(std::max(n, 0)), 0xEE);
        Bytes expected;
        ASSERT_EQ(model.dequeue(true, n, expected), QUEUE_DequeueToBuff(&ctx, out.data(), n));
        ASSERT_TRUE(out.intact());
        expected.resize(out.size(), 0xEE);
        ASSERT_EQ(expected, out.toVector());
    }

    void checkContext() {
        uint32_t depth = 0;
        ASSERT_EQ(0, QUEUE_GetDepth(&ctx, &depth));
        ASSERT_EQ(model.depth, depth);
        ASSERT_TRUE(ctx.readPtr >= ctx.bufStart && ctx.readPtr < ctx.bufEnd);
        ASSERT_TRUE(ctx.writePtr >= ctx.bufStart && ctx.writePtr < ctx.bufEnd);
        ASSERT_TRUE(storage.intact());
        ASSERT_EQ(model.storage, storage.toVector());
        if (depth == 0 || depth == storage.size()) {
            ASSERT_EQ(ctx.readPtr, ctx.writePtr);
        }
    }

    std::mt19937 random;
    QUEUE_Ctx ctx;
    Guarded<uint8_t> storage{4};
    QueueModel model;
};

TEST(QueueModelTest, RandomUseEqualsThePlainModel) {
    for (uint32_t seed = 1; seed <= 200; seed++) {
        QueueAgainstModel pair(seed);
        for (int step = 0; step < 500; step++) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
            ASSERT_NO_FATAL_FAILURE(pair.step());
        }
    }
}

}  // namespace
}  // namespace uafd
