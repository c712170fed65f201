// SPDX-License-Identifier: Apache-2.0
// The source channel's buffer loop: from the app's FIFO into the frame buffer.
#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/source_bench.h"

namespace uafd {
namespace {

using fake_log::kChannelLog;
using fake_log::kSourceLog;
using namespace source_bench;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::SizeIs;
using Samples = std::vector<int16_t>;

class UafSrcFifoTest : public FifoTest {
  protected:
    // Reads return these results, one after the other, and then whole blocks.
    void readResults(std::vector<int> results) {
        fifo.onRead = [results, next = size_t{0}](int16_t*, size_t size) mutable {
            return next < results.size() ? results[next++] : static_cast<ssize_t>(size);
        };
    }
    // The loop will end in its `yields`-th failed pass.
    void stopAtYield(int yields) {
        threads.onYield = [this, left = yields]() mutable {
            if (--left == 0) {
                source->uafStop();
            }
        };
    }
};

// ---- Reading the FIFO --------------------------------------------------------------------------

TEST_F(UafSrcFifoTest, OpensTheFifoAndReportsEntryProgressAndExit) {
    runBlocks(3);
    EXPECT_THAT(journal, AllOf(Contains("open /tmp/usbAudioFifoTx 0").Times(1),
                               Contains("set pipe 1920").Times(1), Contains("write").Times(3)));
    EXPECT_TRUE(source->fifo.isOpen());
    const std::vector<fake_log::Line> lines = ownLines();
    EXPECT_THAT(lines,
                ElementsAre(kSourceLog.debug("enter buffer loop\n"),
                            kSourceLog.debug("/tmp/usbAudioFifoTx opened buffer size 4096\n"),
                            kSourceLog.debug("buffer loopcnt 0, fifoRead 1920\n"),
                            kSourceLog.debug("stopping buffer thread\n"),
                            kSourceLog.debug("stop, close hw:1\n"),
                            kSourceLog.debug("exit buffer loop, loopcnt=3, fifoRead 5760\n")));
}

// The app writes stereo, the host records mono.
TEST_F(UafSrcFifoTest, KeepsTheLeftSamples) {
    fifo.onRead = [](int16_t* samples, size_t size) {
        for (int i = 0; i < kBlockSamples; ++i) {
            samples[2 * i] = static_cast<int16_t>(i + 1);
            samples[2 * i + 1] = -999;
        }
        return static_cast<ssize_t>(size);
    };
    runBlocks(1);
    ASSERT_THAT(blocks, SizeIs(1));
    Samples left(kBlockSamples);
    for (size_t i = 0; i < left.size(); ++i) {
        left[i] = static_cast<int16_t>(i + 1);
    }
    EXPECT_EQ(left, blocks[0]);
}

// The rest of the block keeps the samples of the read before.
TEST_F(UafSrcFifoTest, AShortReadIsNotCompletedAndCountsItsBytes) {
    Samples model(kBlockSamples * 2, 0);
    std::vector<Samples> expected;
    fifo.onRead = [&](int16_t* samples, size_t size) {
        const size_t bytes = expected.empty() ? size : 8;
        const auto value = static_cast<int16_t>(100 * (expected.size() + 1));
        std::fill_n(samples, bytes / sizeof value, value);
        std::fill_n(model.begin(), bytes / sizeof value, value);
        UafCh::adjCh(model.data(), 2, 1, kBlockSamples);
        expected.emplace_back(model.begin(), model.begin() + kBlockSamples);
        return static_cast<ssize_t>(bytes);
    };
    runBlocks(2);
    EXPECT_EQ(expected, blocks);
    EXPECT_EQ(200, blocks[1][1]);
    EXPECT_EQ(100, blocks[1][2]);
    EXPECT_EQ(0, count("close 77"));
    EXPECT_THAT(ownLines(),
                Contains(kSourceLog.debug("exit buffer loop, loopcnt=2, fifoRead 1928\n")));
}

// It is not an error when an app closes its end: the stream goes on and waits for the next app.
TEST_F(UafSrcFifoTest, EndOfFileGivesOneBlockOfSilenceAndReopens) {
    fifo.onRead = [reads = 0](int16_t* samples, size_t size) mutable {
        std::fill_n(samples, size / sizeof *samples, int16_t{7});
        return ++reads == 2 ? 0 : static_cast<ssize_t>(size);
    };
    runBlocks(3);
    ASSERT_THAT(blocks, SizeIs(3));
    EXPECT_THAT(blocks[0], Each(7));
    EXPECT_THAT(blocks[1], AllOf(SizeIs(kBlockSamples), Each(0)));
    EXPECT_THAT(blocks[2], Each(7));
    EXPECT_EQ(2, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(1, count("close 77"));
    EXPECT_EQ(0, count("trylock intf"));
    EXPECT_THAT(
        ownLines(),
        IsSupersetOf({kSourceLog.debug("closing /tmp/usbAudioFifoTx, failed to read rc=0, expect "
                                       "1920\n"),
                      kSourceLog.debug("exit buffer loop, loopcnt=3, fifoRead 3840\n")}));
}

TEST_F(UafSrcFifoTest, AReadErrorClosesTheFifoAndRequestsAStop) {
    readResults({-1});
    runBlocks(1);
    EXPECT_THAT(ownLines(),
                Contains(kSourceLog.debug("closing /tmp/usbAudioFifoTx, failed to read rc=-1, "
                                          "expect 1920\n")));
    EXPECT_EQ(2, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(1, count("close 77"));
    EXPECT_EQ(1, count("trylock intf"));
    EXPECT_EQ(UAFCH_STOPPING, source->state);
    EXPECT_THAT(blocks, SizeIs(1));
    EXPECT_THAT(ownLines(),
                Contains(kSourceLog.debug("exit buffer loop, loopcnt=1, fifoRead 1920\n")));
}

// A file never makes a read wait: without the pauses the thread would hog its processor.
TEST_F(UafSrcFifoTest, AFileInTheFifosPlaceIsReadAtTheSoundsPace) {
    fake_sys::hooks().fcntl = [](int, int, long) { return -1; };
    readResults({1920, 0});
    runBlocks(3);
    EXPECT_EQ(2, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(30000000, threads.sleptNs);
}

TEST_F(UafSrcFifoTest, TheFifoItselfIsReadWithoutAPause) {
    runBlocks(3);
    EXPECT_EQ(0, threads.sleptNs);
}

// Descriptor 0 is standard input.
TEST_F(UafSrcFifoTest, ADescriptorOfZeroCountsAsNotOpen) {
    fifo.openResult = 0;
    runBlocks(2);
    EXPECT_EQ(2, count("open /tmp/usbAudioFifoTx 0"));
}

// The requested stop ends the loop after a few passes.
TEST_F(UafSrcFifoTest, AFifoThatDoesNotOpenIsRetriedAtOnceWithoutAPause) {
    fifo.openResult = -1;
    stopAtYield(3);
    runBufferThread();
    EXPECT_EQ(3, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(3, count("trylock intf"));
    EXPECT_EQ(3, count("yield"));
    EXPECT_EQ(0, threads.sleptNs);
    EXPECT_THAT(blocks, IsEmpty());
    EXPECT_THAT(ownLines(),
                AllOf(Contains(kSourceLog.error("failed to open /tmp/usbAudioFifoTx\n")).Times(3),
                      Contains(kSourceLog.debug("exit buffer loop, loopcnt=0, fifoRead 0\n"))));
    EXPECT_THAT(fake_log::lines(),
                Contains(kChannelLog.debug("intfUpdate to 0, current state 1\n")));
}

// A failed start left the thread behind. Nothing ends it, so it must not spin.
TEST_F(UafSrcFifoTest, AFailedPassOfAStoppedChannelTakesTenMilliseconds) {
    fifo.openResult = -1;
    source->state = UAFCH_STOPPED;  // as a failed start leaves it
    threads.onSleep = [this](long) {
        if (threads.sleptNs == 30000000) {
            source->uafStop();
        }
    };
    runBufferThread();
    EXPECT_EQ(30000000, threads.sleptNs);
    EXPECT_EQ(3, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(0, count("yield"));
}

TEST_F(UafSrcFifoTest, ClearedNamesFailTheReopeningAndNothingElse) {
    fifo.onRead = [this](int16_t*, size_t) {
        source->setDevName(nullptr, nullptr);
        return 0;
    };
    stopAtYield(1);
    runBufferThread();
    EXPECT_THAT(
        ownLines(),
        IsSupersetOf({kSourceLog.debug("closing (null), failed to read rc=0, expect 1920\n"),
                      kSourceLog.error("failed to open (null)\n")}));
    EXPECT_THAT(fake_log::lines(), Contains(kChannelLog.error("devName not set\n")));
    EXPECT_THAT(blocks, ElementsAre(Each(0)));
}

// ---- Released by the stop ----------------------------------------------------------------------

// The next stream uses the same FIFO.
TEST_F(UafSrcFifoTest, AReadThatTheStopEndsIsNoErrorAndLeavesTheFifoOpen) {
    fifo.onRead = [this, reads = 0](int16_t*, size_t size) mutable {
        if (++reads < 3) {
            return static_cast<ssize_t>(size);
        }
        source->uafStop();
        forget();
        errno = EINTR;
        return ssize_t{-1};
    };
    runBufferThread();
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kSourceLog.debug("exit buffer loop, loopcnt=2, fifoRead 3840\n")));
    EXPECT_TRUE(source->fifo.isOpen());
    EXPECT_EQ(UAFCH_RUNNING, source->state);
    EXPECT_THAT(blocks, SizeIs(2));
    // The next run uses the FIFO that is still open.
    ASSERT_EQ(0, source->uafStart());
    forget();
    fifo.onRead = [](int16_t*, size_t size) { return static_cast<ssize_t>(size); };
    runBlocks(1);
    EXPECT_EQ(0, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_THAT(blocks, SizeIs(3));
}

TEST_F(UafSrcFifoTest, AnOpenThatTheStopEndsIsNoError) {
    fake_sys::hooks().open = [this](const char*, int) {
        source->uafStop();
        forget();
        errno = EINTR;
        return -1;
    };
    runBufferThread();
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kSourceLog.debug("exit buffer loop, loopcnt=0, fifoRead 0\n")));
    EXPECT_FALSE(source->fifo.isOpen());
    EXPECT_EQ(UAFCH_RUNNING, source->state);
}

TEST_F(UafSrcFifoTest, ASignalWithoutAStopCostsNothing) {
    fifo.onRead = [reads = 0](int16_t*, size_t size) mutable {
        errno = EINTR;
        return ++reads % 2 == 1 ? ssize_t{-1} : static_cast<ssize_t>(size);
    };
    runBlocks(3);
    EXPECT_EQ(1, count("open /tmp/usbAudioFifoTx 0"));
    EXPECT_EQ(0, count("trylock intf"));
    EXPECT_EQ(0, linesWith("closing"));
    EXPECT_THAT(ownLines(),
                Contains(kSourceLog.debug("exit buffer loop, loopcnt=3, fifoRead 5760\n")));
}

// The stop did not cause this failure, so it is reported like any other.
TEST_F(UafSrcFifoTest, AFailureWhileTheStopIsUnderWayIsReported) {
    fifo.onRead = [this](int16_t*, size_t) {
        source->uafStop();
        forget();
        errno = EIO;
        return ssize_t{-1};
    };
    runBufferThread();
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(kSourceLog.debug("closing /tmp/usbAudioFifoTx, failed to read rc=-1, expect "
                                     "1920\n"),
                    kChannelLog.debug("intfUpdate to 0, current state 1\n"),
                    kSourceLog.debug("exit buffer loop, loopcnt=0, fifoRead 0\n")));
    EXPECT_FALSE(source->fifo.isOpen());
}

// ---- Into the frame buffer ---------------------------------------------------------------------

TEST_F(UafSrcFifoTest, TheLockIsHeldAroundTheFrameBufferOnly) {
    fifo.onRead = [this](int16_t*, size_t size) {
        journal.push_back("read");
        return static_cast<ssize_t>(size);
    };
    runBlocks(1);
    journal.erase(journal.begin(), std::find(journal.begin(), journal.end(), "read"));
    EXPECT_THAT(journal,
                ElementsAre("read", "lock ssrs", "write", "unlock ssrs", "signal", "join"));
}

TEST_F(UafSrcFifoTest, AFailedLockRequestsAStop) {
    locks.answer("lock ssrs", EINVAL);
    stopAtYield(2);
    runBufferThread();
    EXPECT_THAT(blocks, IsEmpty());
    EXPECT_EQ(0, count("unlock ssrs"));
    EXPECT_EQ(2, count("trylock intf"));
    EXPECT_EQ(UAFCH_STOPPING, source->state);
    EXPECT_THAT(ownLines(),
                AllOf(Contains(kSourceLog.error("bufferLoop: lock failed: 22\n")).Times(2),
                      Contains(kSourceLog.debug("exit buffer loop, loopcnt=0, fifoRead 3840\n"))));
}

TEST_F(UafSrcFifoTest, AFailedUnlockRequestsAStop) {
    locks.answer("unlock ssrs", EPERM);
    stopAtYield(2);
    runBufferThread();
    EXPECT_THAT(blocks, SizeIs(2));
    EXPECT_EQ(2, count("unlock ssrs"));
    EXPECT_EQ(UAFCH_STOPPING, source->state);
    EXPECT_THAT(ownLines(),
                AllOf(Contains(kSourceLog.error("bufferLoop: unlock failed: 1\n")).Times(2),
                      Contains(kSourceLog.debug("exit buffer loop, loopcnt=0, fifoRead 3840\n"))));
    EXPECT_EQ(0, linesWith("buffer loopcnt"));
}

// The app is ahead of the host: a block is lost, and the stream goes on.
TEST_F(UafSrcFifoTest, AFullFrameBufferIsNoFailure) {
    writeResult = SSRS_QUEUE_FULL;
    runBlocks(2);
    EXPECT_EQ(6, SSRS_QUEUE_FULL);
    EXPECT_EQ(UAFCH_RUNNING, source->state);
    EXPECT_THAT(ownLines(),
                Contains(kSourceLog.debug("exit buffer loop, loopcnt=2, fifoRead 3840\n")));
}

// Without the lock the worker could find the failed frame buffer before the stop is requested.
TEST_F(UafSrcFifoTest, AFrameBufferErrorKeepsTheLockUntilTheStopIsRequested) {
    writeResult = 3;
    stopAtYield(2);
    runBufferThread();
    const std::vector<std::string> pass{"lock ssrs",   "write",       "trylock intf",
                                        "unlock intf", "unlock ssrs", "yield"};
    std::vector<std::string> expected(pass);
    expected.insert(expected.end(), pass.begin(), pass.end());
    expected.insert(expected.end(), {"signal", "join"});
    journal.erase(journal.begin(), std::find(journal.begin(), journal.end(), "lock ssrs"));
    EXPECT_EQ(expected, journal);
    EXPECT_EQ(UAFCH_STOPPING, source->state);
    EXPECT_EQ(2, linesWith("SSRS_Write error: 3\n"));
    EXPECT_THAT(ownLines(), Contains(kSourceLog.error("SSRS_Write error: 3\n")));
}

// ---- Progress ----------------------------------------------------------------------------------

TEST_F(UafSrcFifoTest, ProgressIsReportedEvery6000Passes) {
    runBlocks(6001);
    EXPECT_EQ(2, linesWith("buffer loopcnt"));
    EXPECT_THAT(
        ownLines(),
        IsSupersetOf({kSourceLog.debug("buffer loopcnt 0, fifoRead 1920\n"),
                      kSourceLog.debug("buffer loopcnt 6000, fifoRead 11521920\n"),
                      kSourceLog.debug("exit buffer loop, loopcnt=6001, fifoRead 11521920\n")}));
}

// The daemon runs for months, longer than the counter lasts.
TEST_F(UafSrcFifoTest, TheByteTotalWraps) {
    fifo.onRead = [](int16_t*, size_t) { return ssize_t{0x60000000}; };
    runBlocks(2);
    EXPECT_THAT(ownLines(),
                Contains(kSourceLog.debug("exit buffer loop, loopcnt=2, fifoRead -1073741824\n")));
}

}  // namespace
}  // namespace uafd
