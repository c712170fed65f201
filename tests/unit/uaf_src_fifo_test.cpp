// The source channel's buffer loop: from the app's FIFO into the frame buffer.
#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "channel/uaf_src.h"
#include "tests/support/source_bench.h"

namespace {

using namespace source_bench;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::SizeIs;
using Samples = std::vector<int16_t>;

class UafSrcFifoTest : public source_bench::Test {
  protected:
    void SetUp() override {
        source_bench::Test::SetUp();
        fake_ssrs::hooks().write = [this](SSRS_Ctx*, const int16_t* data, int32_t n) {
            journal.push_back("write");
            blocks.emplace_back(data, data + n);
            return writeResult;
        };
        fake_ssrs::hooks().statsGet = [this](const SSRS_Ctx*, SSRS_Stats* stats) {
            journal.push_back("stats");
            *stats = this->stats;
            return 0;
        };
        start();
    }

    // `passes` passes that reach the unlock.
    void runBlocks(int passes) {
        stopAfterBlocks(passes);
        runBufferThread();
    }

    // Reads give these results, one after the other, and then whole blocks.
    void readResults(std::vector<int> results) {
        onRead = [results, next = size_t{0}](int16_t*, size_t size) mutable {
            return next < results.size() ? results[next++] : static_cast<ssize_t>(size);
        };
    }

    // The loop ends in its `yields`-th failed pass.
    void stopAtYield(int yields) {
        fake_sys::hooks().sched_yield = [this, left = yields]() mutable {
            journal.push_back("yield");
            if (--left == 0) {
                source->uafStop();
            }
            return 0;
        };
    }

    int linesWith(const std::string& part) const {
        const std::vector<fake_log::Line> lines = ownLines();
        return static_cast<int>(std::count_if(
            lines.begin(), lines.end(),
            [&](const fake_log::Line& line) { return line.text.find(part) != std::string::npos; }));
    }

    std::vector<Samples> blocks;
    int32_t writeResult = 0;
    SSRS_Stats stats{};
};

// ---- Reading the FIFO --------------------------------------------------------------------------

TEST_F(UafSrcFifoTest, OpensTheFifoAndReportsEntryProgressAndExit) {
    runBlocks(3);
    EXPECT_THAT(journal, AllOf(Contains("open /tmp/usbAudioFifoTx 0").Times(1),
                               Contains("capacity 1920").Times(1), Contains("write").Times(3)));
    EXPECT_EQ(FIFO_FD, source->fifoFd);
    const std::vector<fake_log::Line> lines = ownLines();
    EXPECT_THAT(lines, ElementsAre(debug("enter buffer loop\n"),
                                   debug("/tmp/usbAudioFifoTx opened buffer size 4096\n"),
                                   debug("buffer loopcnt 0, fifoRead 1920\n"),
                                   debug("stopping buffer thread\n"), debug("stop, close hw:1\n"),
                                   debug("exit buffer loop, loopcnt=3, fifoRead 5760\n")));
}

TEST_F(UafSrcFifoTest, KeepsTheLeftSamples) {
    onRead = [](int16_t* samples, size_t size) {
        for (int i = 0; i < BLOCK_SAMPLES; ++i) {
            samples[2 * i] = static_cast<int16_t>(i + 1);
            samples[2 * i + 1] = -999;
        }
        return static_cast<ssize_t>(size);
    };
    runBlocks(1);
    ASSERT_THAT(blocks, SizeIs(1));
    Samples left(BLOCK_SAMPLES);
    for (size_t i = 0; i < left.size(); ++i) {
        left[i] = static_cast<int16_t>(i + 1);
    }
    EXPECT_EQ(left, blocks[0]);
}

TEST_F(UafSrcFifoTest, AShortReadIsNotCompletedAndCountsItsBytes) {
    Samples model(BLOCK_SAMPLES * 2, 0);
    std::vector<Samples> expected;
    onRead = [&](int16_t* samples, size_t size) {
        const size_t bytes = expected.empty() ? size : 8;
        const auto value = static_cast<int16_t>(100 * (expected.size() + 1));
        std::fill_n(samples, bytes / sizeof value, value);
        std::fill_n(model.begin(), bytes / sizeof value, value);
        UafCh::adjCh(model.data(), 2, 1, BLOCK_SAMPLES);
        expected.emplace_back(model.begin(), model.begin() + BLOCK_SAMPLES);
        return static_cast<ssize_t>(bytes);
    };
    runBlocks(2);
    EXPECT_EQ(expected, blocks);
    EXPECT_EQ(200, blocks[1][1]);
    EXPECT_EQ(100, blocks[1][2]);
    EXPECT_EQ(0, count("close 77"));
    EXPECT_THAT(ownLines(), Contains(debug("exit buffer loop, loopcnt=2, fifoRead 1928\n")));
}

TEST_F(UafSrcFifoTest, EndOfFileGivesOneBlockOfSilenceAndReopens) {
    onRead = [reads = 0](int16_t* samples, size_t size) mutable {
        std::fill_n(samples, size / sizeof *samples, int16_t{7});
        return ++reads == 2 ? 0 : static_cast<ssize_t>(size);
    };
    runBlocks(3);
    ASSERT_THAT(blocks, SizeIs(3));
    EXPECT_THAT(blocks[0], Each(7));
    EXPECT_THAT(blocks[1], AllOf(SizeIs(BLOCK_SAMPLES), Each(0)));
    EXPECT_THAT(blocks[2], Each(7));
    EXPECT_EQ(2, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(1, count("close 77"));
    EXPECT_EQ(0, count("trylock intf"));
    EXPECT_THAT(ownLines(),
                IsSupersetOf({debug("closing /tmp/usbAudioFifoTx, failed to read rc=0, expect "
                                    "1920\n"),
                              debug("exit buffer loop, loopcnt=3, fifoRead 3840\n")}));
}

TEST_F(UafSrcFifoTest, AReadErrorClosesTheFifoAndRequestsAStop) {
    readResults({-1});
    runBlocks(1);
    EXPECT_THAT(ownLines(), Contains(debug("closing /tmp/usbAudioFifoTx, failed to read rc=-1, "
                                           "expect 1920\n")));
    EXPECT_EQ(2, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(1, count("close 77"));
    EXPECT_EQ(1, count("trylock intf"));
    EXPECT_EQ(UAFCH_STOPPING, source->state);
    EXPECT_THAT(blocks, SizeIs(1));
    EXPECT_THAT(ownLines(), Contains(debug("exit buffer loop, loopcnt=1, fifoRead 1920\n")));
}

TEST_F(UafSrcFifoTest, AFileInTheFifosPlaceIsReadAtTheSoundsPace) {
    fake_sys::hooks().fcntl = [](int, int, long) { return -1; };
    readResults({1920, 0});
    runBlocks(3);
    EXPECT_EQ(2, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(30000000, sleptNs);
}

TEST_F(UafSrcFifoTest, TheFifoItselfIsReadWithoutAPause) {
    runBlocks(3);
    EXPECT_EQ(0, sleptNs);
}

TEST_F(UafSrcFifoTest, ADescriptorOfZeroCountsAsNotOpen) {
    openResult = 0;
    runBlocks(2);
    EXPECT_EQ(2, count("open /tmp/usbAudioFifoTx 0"));
}

TEST_F(UafSrcFifoTest, AFifoThatDoesNotOpenIsRetriedAtOnceWithoutAPause) {
    openResult = -1;
    stopAtYield(3);
    runBufferThread();
    EXPECT_EQ(3, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(3, count("trylock intf"));
    EXPECT_EQ(3, count("yield"));
    EXPECT_EQ(0, sleptNs);
    EXPECT_THAT(blocks, IsEmpty());
    EXPECT_THAT(ownLines(), AllOf(Contains(error("failed to open /tmp/usbAudioFifoTx\n")).Times(3),
                                  Contains(debug("exit buffer loop, loopcnt=0, fifoRead 0\n"))));
    EXPECT_THAT(fake_log::lines(), Contains(base(3, "intfUpdate to 0, current state 1\n")));
}

TEST_F(UafSrcFifoTest, AFailedPassOfAStoppedChannelTakesTenMilliseconds) {
    openResult = -1;
    source->state = UAFCH_STOPPED;  // as a failed start leaves it
    fake_sys::hooks().nanosleep = [this](const timespec* pause, timespec*) {
        sleptNs += pause->tv_sec * 1000000000L + pause->tv_nsec;
        if (sleptNs == 30000000) {
            source->uafStop();
        }
        return 0;
    };
    runBufferThread();
    EXPECT_EQ(30000000, sleptNs);
    EXPECT_EQ(3, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(0, count("yield"));
}

TEST_F(UafSrcFifoTest, ClearedNamesFailTheReopeningAndNothingElse) {
    onRead = [this](int16_t*, size_t) {
        source->setDevName(nullptr, nullptr);
        return 0;
    };
    stopAtYield(1);
    runBufferThread();
    EXPECT_THAT(ownLines(),
                IsSupersetOf({debug("closing (null), failed to read rc=0, expect 1920\n"),
                              error("failed to open (null)\n")}));
    EXPECT_THAT(fake_log::lines(), Contains(base(6, "devName not set\n")));
    EXPECT_THAT(blocks, ElementsAre(Each(0)));
}

// ---- Into the frame buffer ---------------------------------------------------------------------

TEST_F(UafSrcFifoTest, TheLockIsHeldAroundTheFrameBufferOnly) {
    onRead = [this](int16_t*, size_t size) {
        journal.push_back("read");
        return static_cast<ssize_t>(size);
    };
    runBlocks(1);
    journal.erase(journal.begin(), std::find(journal.begin(), journal.end(), "read"));
    EXPECT_THAT(journal, ElementsAre("read", "lock ssrs", "write", "unlock ssrs", "join"));
}

TEST_F(UafSrcFifoTest, AFailedLockRequestsAStop) {
    ssrsLockResult = EINVAL;
    stopAtYield(2);
    runBufferThread();
    EXPECT_THAT(blocks, IsEmpty());
    EXPECT_EQ(0, count("unlock ssrs"));
    EXPECT_EQ(2, count("trylock intf"));
    EXPECT_EQ(UAFCH_STOPPING, source->state);
    EXPECT_THAT(ownLines(), AllOf(Contains(error("bufferLoop: lock failed: 22\n")).Times(2),
                                  Contains(debug("exit buffer loop, loopcnt=0, fifoRead 3840\n"))));
}

TEST_F(UafSrcFifoTest, AFailedUnlockRequestsAStop) {
    ssrsUnlockResult = EPERM;
    stopAtYield(2);
    runBufferThread();
    EXPECT_THAT(blocks, SizeIs(2));
    EXPECT_EQ(2, count("unlock ssrs"));
    EXPECT_EQ(UAFCH_STOPPING, source->state);
    EXPECT_THAT(ownLines(), AllOf(Contains(error("bufferLoop: unlock failed: 1\n")).Times(2),
                                  Contains(debug("exit buffer loop, loopcnt=0, fifoRead 3840\n"))));
    EXPECT_EQ(0, linesWith("buffer loopcnt"));
}

TEST_F(UafSrcFifoTest, AFullFrameBufferIsNoFailure) {
    writeResult = SSRS_QUEUE_FULL;
    runBlocks(2);
    EXPECT_EQ(6, SSRS_QUEUE_FULL);
    EXPECT_EQ(UAFCH_RUNNING, source->state);
    EXPECT_THAT(ownLines(), Contains(debug("exit buffer loop, loopcnt=2, fifoRead 3840\n")));
}

TEST_F(UafSrcFifoTest, AFrameBufferErrorKeepsTheLockUntilTheStopIsRequested) {
    writeResult = 3;
    stopAtYield(2);
    runBufferThread();
    const std::vector<std::string> pass{"lock ssrs",   "write",       "trylock intf",
                                        "unlock intf", "unlock ssrs", "yield"};
    std::vector<std::string> expected(pass);
    expected.insert(expected.end(), pass.begin(), pass.end());
    expected.push_back("join");
    journal.erase(journal.begin(), std::find(journal.begin(), journal.end(), "lock ssrs"));
    EXPECT_EQ(expected, journal);
    EXPECT_EQ(UAFCH_STOPPING, source->state);
    EXPECT_EQ(2, linesWith("SSRS_Write error: 3\n"));
    EXPECT_THAT(ownLines(), Contains(error("SSRS_Write error: 3\n")));
}

// ---- Progress ----------------------------------------------------------------------------------

TEST_F(UafSrcFifoTest, ProgressIsReportedEvery6000Passes) {
    runBlocks(6001);
    EXPECT_EQ(2, linesWith("buffer loopcnt"));
    EXPECT_THAT(ownLines(),
                IsSupersetOf({debug("buffer loopcnt 0, fifoRead 1920\n"),
                              debug("buffer loopcnt 6000, fifoRead 11521920\n"),
                              debug("exit buffer loop, loopcnt=6001, fifoRead 11521920\n")}));
}

TEST_F(UafSrcFifoTest, TheByteTotalWraps) {
    onRead = [](int16_t*, size_t) { return ssize_t{0x60000000}; };
    runBlocks(2);
    EXPECT_THAT(ownLines(), Contains(debug("exit buffer loop, loopcnt=2, fifoRead -1073741824\n")));
}

// ---- Statistics and enlargement ----------------------------------------------------------------

class UafSrcEnlargeTest : public UafSrcFifoTest {
  protected:
    void SetUp() override {
        UafSrcFifoTest::SetUp();
        fake_ssrs::hooks().setQBuff = [this](SSRS_Ctx*, int16_t* storage, int32_t len) {
            EXPECT_NE(nullptr, storage);
            journal.push_back("storage " + std::to_string(len));
            return storageResult;
        };
        fake_ssrs::hooks().setQDepth = [this](SSRS_Ctx*, int32_t low, int32_t high) {
            journal.push_back("depth " + std::to_string(low) + "-" + std::to_string(high));
            return depthResult;
        };
    }

    // Statistics check number i finds counts[i] underruns.
    void runChecks(std::vector<uint32_t> counts) {
        const int passes = static_cast<int>(counts.size()) * 100 + 1;
        fake_ssrs::hooks().statsGet = [this, counts, next = size_t{0}](const SSRS_Ctx*,
                                                                       SSRS_Stats* out) mutable {
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
    EXPECT_EQ("stats", journal.end()[-3]);
    ASSERT_EQ(0, source->uafStart());
    forget();
    runBlocks(301);
    EXPECT_EQ(3, count("stats"));
}

TEST_F(UafSrcEnlargeTest, TheCheckIsMadeUnderTheLock) {
    runChecks({11});
    journal.pop_back();
    EXPECT_THAT(std::vector<std::string>(journal.end() - 6, journal.end()),
                ElementsAre("lock ssrs", "write", "stats", "storage 1920", "depth 960-1440",
                            "unlock ssrs"));
}

TEST_F(UafSrcEnlargeTest, ElevenUnderrunsEnlargeTheBuffer) {
    stats.avgDepth = 333;
    stats.overruns = 4000000000;
    runChecks({11});
    EXPECT_EQ(1, enlargements());
    EXPECT_THAT(ownLines(),
                IsSupersetOf({debug("buffer loopcnt 100, Depth 333, Underruns 11, Overruns "
                                    "4000000000\n"),
                              debug("increased ssrs queue depth\n")}));
}

TEST_F(UafSrcEnlargeTest, TenUnderrunsDoNot) {
    runChecks({10, 20, 30});
    EXPECT_EQ(0, enlargements());
    EXPECT_EQ(3, linesWith("Depth"));
    EXPECT_THAT(ownLines(), Not(Contains(debug("increased ssrs queue depth\n"))));
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
    EXPECT_THAT(ownLines(), Contains(error("SSRS_SetQBuff error: 3\n")).Times(1));
    EXPECT_THAT(ownLines(), Not(Contains(debug("increased ssrs queue depth\n"))));
    EXPECT_EQ(UAFCH_RUNNING, source->state);
}

TEST_F(UafSrcEnlargeTest, ARangeThatIsRefusedIsReportedAndNotTriedAgain) {
    depthResult = 4;
    runChecks({11, 100});
    EXPECT_EQ(1, count("depth 960-1440"));
    EXPECT_THAT(ownLines(), Contains(error("SSRS_SetQDepth error: 4\n")).Times(1));
    EXPECT_THAT(ownLines(), Not(Contains(debug("increased ssrs queue depth\n"))));
    EXPECT_EQ(UAFCH_RUNNING, source->state);
}

// The real frame buffer: three frames read for each block starve it once.
TEST_F(UafSrcEnlargeTest, ReaderThatStarvesTheRealBufferElevenTimesEnlargesIt) {
    for (const int starvations : {10, 11}) {
        fake_ssrs::reset();
        SSRS_Ctx* context = nullptr;
        int32_t storage = 0;
        fake_ssrs::hooks().write = [&](SSRS_Ctx* ctx, const int16_t* data, int32_t n) {
            context = ctx;
            return fake_ssrs::real::write(ctx, data, n);
        };
        source->uafStop();
        ASSERT_EQ(0, source->uafStart());
        forget();
        int blocksRead = 0;
        onRead = [&](int16_t*, size_t size) {
            int16_t frame[FRAME_SAMPLES];
            const int frames = blocksRead == 0 ? 0 : blocksRead <= starvations ? 3 : 2;
            for (int i = 0; i < frames; ++i) {
                fake_ssrs::real::read(context, frame);
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
