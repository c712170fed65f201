// SPDX-License-Identifier: Apache-2.0
// The source's frame buffer alone: its lock around each use, a failure that keeps the lock, its
// life from build to release. The rule that enlarges it has its own test.
#include "channel/frame_buffer.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "channel/stream_shape.h"
#include "tests/support/fake_locks.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_ssrs.h"
#include "tests/support/fake_sys.h"
#include "tests/unit/fake_new.h"

namespace uafd {
namespace {

using fake_log::kSourceLog;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FrameBufferTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        memory.install();
        locks.install();
        locks.watchNew({""});
        buffer = std::make_unique<FrameBuffer>();
        ASSERT_TRUE(buffer->allocateStorage());
        buffer->build();
        fake_log::clear();
    }
    void TearDown() override {
        buffer = nullptr;
        fake_sys::Test::TearDown();
    }

    bool write() {
        const FrameBuffer::Result written = buffer->write(block, 0);
        journal.push_back("request");
        return written.ok();
    }
    bool read() {
        const FrameBuffer::Result taken = buffer->read(frame);
        journal.push_back("request");
        return taken.ok();
    }
    int depth() const {
        uint32_t bytes = 0;
        QUEUE_GetDepth(buffer->context()->queue, &bytes);
        return static_cast<int>(bytes / sizeof(int16_t));
    }

    FakeNew memory;
    std::unique_ptr<FrameBuffer> buffer;
    std::vector<std::string> journal;
    FakeLocks locks{journal};
    int16_t block[kFifoBlockFrames] = {};
    int16_t frame[kPeriodFrames] = {};
};

TEST_F(FrameBufferTest, AUseReleasesTheLockBeforeItReturns) {
    EXPECT_TRUE(write());
    EXPECT_TRUE(read());
    EXPECT_THAT(journal, ElementsAre("lock", "unlock", "request", "lock", "unlock", "request"));
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// The stop is requested while the lock is held: the other thread must not find the failed buffer
// earlier.
TEST_F(FrameBufferTest, AFailedUseKeepsTheLockAsLongAsItsResult) {
    fake_ssrs::hooks().SSRS_Write = [](SSRS_Ctx*, const int16_t*, int32_t) { return 3; };
    fake_ssrs::hooks().SSRS_Read = [](SSRS_Ctx*, int16_t*) { return 4; };
    EXPECT_FALSE(write());
    EXPECT_FALSE(read());
    EXPECT_THAT(journal, ElementsAre("lock", "request", "unlock", "lock", "request", "unlock"));
    EXPECT_THAT(fake_log::lines(), ElementsAre(kSourceLog.error("SSRS_Write error: 3\n"),
                                               kSourceLog.error("SSRS_Read error: 4\n")));
}

TEST_F(FrameBufferTest, AnUnlockThatFailsAfterAFailureIsNotReported) {
    fake_ssrs::hooks().SSRS_Read = [](SSRS_Ctx*, int16_t*) { return 4; };
    locks.answer("unlock", EPERM);
    EXPECT_FALSE(read());
    EXPECT_THAT(fake_log::lines(), ElementsAre(kSourceLog.error("SSRS_Read error: 4\n")));
}

TEST_F(FrameBufferTest, WithoutTheLockNothingIsDone) {
    locks.answer("lock", EINVAL);
    EXPECT_FALSE(write());
    EXPECT_FALSE(read());
    EXPECT_THAT(journal, ElementsAre("lock", "request", "lock", "request"));
    EXPECT_EQ(0U, buffer->context()->wrCalls + buffer->context()->rdCalls);
    EXPECT_THAT(fake_log::lines(), ElementsAre(kSourceLog.error("bufferLoop: lock failed: 22\n"),
                                               kSourceLog.error("mutex lock failed: 22\n")));
}

TEST_F(FrameBufferTest, AFailedUnlockIsAFailureThatHoldsNothing) {
    locks.answer("unlock", EPERM);
    EXPECT_FALSE(write());
    EXPECT_FALSE(read());
    EXPECT_THAT(journal, ElementsAre("lock", "unlock", "request", "lock", "unlock", "request"));
    EXPECT_THAT(fake_log::lines(), ElementsAre(kSourceLog.error("bufferLoop: unlock failed: 1\n"),
                                               kSourceLog.error("mutex unlock failed: 1\n")));
}

TEST_F(FrameBufferTest, ABlockWithoutRoomIsDroppedAndNoFailure) {
    EXPECT_TRUE(write());  // after 120 samples of silence
    EXPECT_EQ(600, depth());
    EXPECT_TRUE(write());
    EXPECT_EQ(600, depth());
    EXPECT_EQ(1U, buffer->context()->overruns);
}

TEST_F(FrameBufferTest, AReadFillsTheWholeFrameWithoutSound) {
    std::fill_n(frame, kPeriodFrames, int16_t{7});
    EXPECT_TRUE(read());
    EXPECT_THAT(frame, Each(0));
}

TEST_F(FrameBufferTest, BuildingAgainKeepsWhatThereIs) {
    EXPECT_TRUE(write());
    fake_log::clear();
    buffer->build();
    EXPECT_EQ(600, depth());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(FrameBufferTest, EveryBuildMayBeEnlargedOnce) {
    for (int build = 0; build < 2; ++build) {
        buffer->release();
        EXPECT_EQ(nullptr, buffer->context());
        buffer->build();
        EXPECT_EQ(kSmallFrameBuffer.storage, buffer->context()->qBuffLen);
        fake_ssrs::hooks().SSRS_StatsGet = [](const SSRS_Ctx*, SSRS_Stats* stats) {
            stats->underruns = kEnlargeUnderruns;
            return 0;
        };
        EXPECT_TRUE(buffer->write(block, kStatsPasses).ok());
        EXPECT_EQ(kLargeFrameBuffer.storage, buffer->context()->qBuffLen);
        EXPECT_EQ(kLargeFrameBuffer.depthHigh, buffer->context()->qDepthHigh);
    }
}

TEST_F(FrameBufferTest, StorageWithoutMemoryIsTriedAgain) {
    FrameBuffer fresh;
    memory.failAfter(0);
    EXPECT_FALSE(fresh.allocateStorage());
    memory.neverFail();
    EXPECT_TRUE(fresh.allocateStorage());
    memory.failAfter(0);
    EXPECT_TRUE(fresh.allocateStorage());
}

}  // namespace
}  // namespace uafd
