// SPDX-License-Identifier: Apache-2.0
// The source channel's checks of the statistics, and the larger buffer for an app that starves the
// small one again and again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/source_bench.h"

namespace uafd {
namespace {

using fake_log::kSourceLog;
using namespace source_bench;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsSupersetOf;
using ::testing::Not;

class UafSrcEnlargeTest : public FifoTest {
  protected:
    void SetUp() override {
        FifoTest::SetUp();
        fake_ssrs::hooks().SSRS_SetQBuff = [this](SSRS_Ctx*, int16_t* storage, int32_t len) {
            EXPECT_NE(nullptr, storage);
            journal.push_back("storage " + std::to_string(len));
            return storageResult;
        };
        fake_ssrs::hooks().SSRS_SetQDepth = [this](SSRS_Ctx*, int32_t low, int32_t high) {
            journal.push_back("depth " + std::to_string(low) + "-" + std::to_string(high));
            return depthResult;
        };
    }

    // The statistics check with number i finds counts[i] underruns.
    void runChecks(std::vector<uint32_t> counts) {
        const int passes = static_cast<int>(counts.size()) * 100 + 1;
        fake_ssrs::hooks().SSRS_StatsGet = [this, counts, next = size_t{0}](
                                               const SSRS_Ctx*, SSRS_Stats* out) mutable {
            journal.push_back("stats");
            stats.underruns = counts.at(next++);
            *out = stats;
            return 0;
        };
        runBlocks(passes);
        EXPECT_EQ(static_cast<int>(counts.size()), count("stats"));
    }

    int enlargements() const { return count("storage 1920"); }

    int32_t storageResult = 0;
    int32_t depthResult = 0;
};

TEST_F(UafSrcEnlargeTest, TheFirstCheckIsInThe101stPass) {
    runBlocks(100);
    EXPECT_EQ(0, count("stats"));
    ASSERT_EQ(0, source->uafStart());
    forget();
    runBlocks(101);
    EXPECT_EQ(1, count("stats"));
    EXPECT_EQ("stats", journal.end()[-4]);
    ASSERT_EQ(0, source->uafStart());
    forget();
    runBlocks(301);
    EXPECT_EQ(3, count("stats"));
}

TEST_F(UafSrcEnlargeTest, TheCheckIsMadeUnderTheLock) {
    runChecks({11});
    EXPECT_THAT(std::vector<std::string>(journal.end() - 8, journal.end()),
                ElementsAre("lock ssrs", "write", "stats", "storage 1920", "depth 960-1440",
                            "unlock ssrs", "signal", "join"));
}

// An app that starves the buffer so often needs a longer delay than the small buffer gives.
TEST_F(UafSrcEnlargeTest, ElevenUnderrunsEnlargeTheBuffer) {
    stats.avgDepth = 333;
    stats.overruns = 4000000000;
    runChecks({11});
    EXPECT_EQ(1, enlargements());
    EXPECT_THAT(
        ownLines(),
        IsSupersetOf({kSourceLog.debug("buffer loopcnt 100, Depth 333, Underruns 11, Overruns "
                                       "4000000000\n"),
                      kSourceLog.debug("increased ssrs queue depth\n")}));
}

TEST_F(UafSrcEnlargeTest, TenUnderrunsDoNot) {
    runChecks({10, 20, 30});
    EXPECT_EQ(0, enlargements());
    EXPECT_EQ(3, linesWith("Depth"));
    EXPECT_THAT(ownLines(), Not(Contains(kSourceLog.debug("increased ssrs queue depth\n"))));
}

TEST_F(UafSrcEnlargeTest, ALaterBurstEnlargesToo) {
    runChecks({10, 21});
    EXPECT_EQ(1, enlargements());
}

TEST_F(UafSrcEnlargeTest, UnchangedStatisticsAreNotReported) {
    runChecks({0, 5, 5, 5});
    EXPECT_EQ(1, linesWith("buffer loopcnt 200, Depth"));
    EXPECT_EQ(1, linesWith("Depth"));
}

TEST_F(UafSrcEnlargeTest, TheIncreaseIsUnsigned) {
    runChecks({5, 0xFFFFFFFEU});
    EXPECT_EQ(1, enlargements());
    ASSERT_EQ(0, source->uafStart());
    forget();
    runChecks({0xFFFFFFFEU, 0});
    EXPECT_EQ(1, enlargements());
}

// There are only two sizes.
TEST_F(UafSrcEnlargeTest, TheBufferIsEnlargedOnceARun) {
    runChecks({11, 100, 200});
    EXPECT_EQ(1, enlargements());
    EXPECT_EQ(1, linesWith("increased"));
    ASSERT_EQ(0, source->uafStart());
    forget();
    runChecks({11});
    EXPECT_EQ(1, enlargements());
}

TEST_F(UafSrcEnlargeTest, StorageThatIsRefusedIsReportedAndNotTriedAgain) {
    storageResult = 3;
    runChecks({11, 100});
    EXPECT_EQ(1, enlargements());
    EXPECT_EQ(0, count("depth 960-1440"));
    EXPECT_THAT(ownLines(), Contains(kSourceLog.error("SSRS_SetQBuff error: 3\n")).Times(1));
    EXPECT_THAT(ownLines(), Not(Contains(kSourceLog.debug("increased ssrs queue depth\n"))));
    EXPECT_EQ(UAFCH_RUNNING, source->state);
}

TEST_F(UafSrcEnlargeTest, ARangeThatIsRefusedIsReportedAndNotTriedAgain) {
    depthResult = 4;
    runChecks({11, 100});
    EXPECT_EQ(1, count("depth 960-1440"));
    EXPECT_THAT(ownLines(), Contains(kSourceLog.error("SSRS_SetQDepth error: 4\n")).Times(1));
    EXPECT_THAT(ownLines(), Not(Contains(kSourceLog.debug("increased ssrs queue depth\n"))));
    EXPECT_EQ(UAFCH_RUNNING, source->state);
}

// With the real frame buffer: three frames read for each block starve it once.
TEST_F(UafSrcEnlargeTest, ReaderThatStarvesTheRealBufferElevenTimesEnlargesIt) {
    for (const int starvations : {10, 11}) {
        fake_ssrs::reset();
        SSRS_Ctx* context = nullptr;
        int32_t storage = 0;
        fake_ssrs::hooks().SSRS_Write = [&](SSRS_Ctx* ctx, const int16_t* data, int32_t n) {
            context = ctx;
            return fake_ssrs::real::SSRS_Write(ctx, data, n);
        };
        source->uafStop();
        ASSERT_EQ(0, source->uafStart());
        forget();
        int blocksRead = 0;
        fifo.onRead = [&](int16_t*, size_t size) {
            int16_t frame[kFrameSamples];
            const int frames = blocksRead == 0 ? 0 : blocksRead <= starvations ? 3 : 2;
            for (int i = 0; i < frames; ++i) {
                fake_ssrs::real::SSRS_Read(context, frame);
            }
            ++blocksRead;
            storage = context != nullptr ? context->qBuffLen : 0;
            return static_cast<ssize_t>(size);
        };
        runBlocks(102);
        EXPECT_EQ(starvations == 11 ? 1920 : 960, storage);
        EXPECT_EQ(starvations == 11 ? 1 : 0, linesWith("increased ssrs queue depth\n"));
        EXPECT_EQ(1, linesWith("buffer loopcnt 100, Depth"));
    }
}

}  // namespace
}  // namespace uafd
