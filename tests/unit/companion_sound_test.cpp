// SPDX-License-Identifier: Apache-2.0
// Whole frames are read, whole blocks are written or nothing is, and parts that were open before
// find a daemon that goes and comes back.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <numeric>
#include <poll.h>
#include <thread>

#include <gtest/gtest.h>

#include "tests/unit/companion_test.h"

namespace uafd {
namespace {

std::vector<int16_t> samplesFrom(int first, size_t count) {
    std::vector<int16_t> samples(count);
    std::iota(samples.begin(), samples.end(), static_cast<int16_t>(first));
    return samples;
}

class CompanionSoundTest : public CompanionTest {
  protected:
    void SetUp() override { openBoth(); }
    std::vector<int16_t> read(size_t frames) {
        std::vector<int16_t> samples(2 * frames);
        const int got = companion.read(samples.data(), frames);
        EXPECT_GE(got, 0);
        samples.resize(2 * static_cast<size_t>(std::max(got, 0)));
        return samples;
    }
    static bool isPending(int signal) {
        sigset_t pending;
        sigpending(&pending);
        return sigismember(&pending, signal) != 0;
    }
    void fillMicFifo() {
        while (companion.write(block.data()) == 0) {
        }
    }

    const std::vector<int16_t> block = samplesFrom(1000, 960);
};

TEST_F(CompanionSoundTest, ReadsWhatTheHostPlays) {
    daemon.play(samplesFrom(1, 480));
    EXPECT_EQ(read(480), samplesFrom(1, 480));
    EXPECT_TRUE(read(480).empty());
    EXPECT_EQ(companion.counts().frames_read, 240U);
}

TEST_F(CompanionSoundTest, ReadsNoMoreThanAskedFor) {
    daemon.play(samplesFrom(1, 480));
    EXPECT_TRUE(read(0).empty());
    EXPECT_EQ(read(1), samplesFrom(1, 2));
    EXPECT_EQ(read(200), samplesFrom(3, 400));
    EXPECT_EQ(read(200), samplesFrom(403, 78));
}

TEST_F(CompanionSoundTest, KeepsAPartOfAFrameForTheRest) {
    const std::vector<int16_t> sent = samplesFrom(0x1122, 6);
    const auto* bytes = reinterpret_cast<const char*>(sent.data());
    daemon.play(bytes, 3);
    EXPECT_TRUE(read(8).empty());
    daemon.play(bytes + 3, 6);
    EXPECT_EQ(read(8), samplesFrom(0x1122, 4));
    daemon.play(bytes + 9, 3);
    EXPECT_EQ(read(8), samplesFrom(0x1126, 2));
    EXPECT_EQ(companion.counts().frames_read, 3U);
}

TEST_F(CompanionSoundTest, IsQuietWhenTheDaemonEnds) {
    daemon.end();
    EXPECT_TRUE(read(8).empty());
    EXPECT_EQ(pollNow(companion.speakerFd()), 0);
    ASSERT_TRUE(daemon.openFifos());
    daemon.play(samplesFrom(1, 480));
    EXPECT_EQ(pollNow(companion.speakerFd()), POLLIN);
    EXPECT_EQ(read(480), samplesFrom(1, 480));
}

TEST_F(CompanionSoundTest, ReadsOnAfterASignalAndSaysWhatElseIsWrong) {
    daemon.play(samplesFrom(1, 480));
    int signals = 3;
    fake_sys::hooks().read = [&](int fd, void* buffer, size_t size) -> ssize_t {
        errno = EINTR;
        return signals-- > 0 ? -1 : fake_sys::real::read(fd, buffer, size);
    };
    EXPECT_EQ(read(480), samplesFrom(1, 480));
    fake_sys::hooks().read = fake_sys::failing(EIO);
    int16_t samples[2];
    EXPECT_EQ(companion.read(samples, 1), -EIO);
}

TEST_F(CompanionSoundTest, WritesWhatTheHostRecords) {
    EXPECT_EQ(pollNow(companion.micFd()), POLLOUT);
    EXPECT_EQ(companion.write(block.data()), 0);
    EXPECT_EQ(daemon.record(), block);
    EXPECT_EQ(companion.counts().blocks_taken, 1U);
}

TEST_F(CompanionSoundTest, WritesABlockWholeOrNotAtAll) {
    fillMicFifo();
    EXPECT_EQ(companion.write(block.data()), -EAGAIN);
    const uafd_counts counts = companion.counts();
    EXPECT_EQ(counts.blocks_refused, 2U);
    for (uint64_t i = 0; i < counts.blocks_taken; ++i) {
        ASSERT_EQ(daemon.record(), block) << i;
    }
    EXPECT_EQ(pollNow(daemon.micFd()), 0) << "there is more than the blocks";
}

// The library does not end a process that has no handler for SIGPIPE.
TEST_F(CompanionSoundTest, SaysThatNobodyReads) {
    daemon.end();
    EXPECT_EQ(pollNow(companion.micFd()) & POLLERR, POLLERR);
    EXPECT_EQ(companion.write(block.data()), -EPIPE);
    EXPECT_FALSE(isPending(SIGPIPE));
    EXPECT_EQ(companion.counts().blocks_unread, 1U);
}

TEST_F(CompanionSoundTest, WritesToADaemonThatIsBackAndNothingFromBefore) {
    daemon.end();
    EXPECT_EQ(companion.write(block.data()), -EPIPE);
    ASSERT_TRUE(daemon.openFifos());
    const std::vector<int16_t> later = samplesFrom(2000, 960);
    EXPECT_EQ(companion.write(later.data()), 0);
    EXPECT_EQ(daemon.record(), later);
}

TEST_F(CompanionSoundTest, LeavesTheThreadsSignalsAsTheyWere) {
    daemon.end();
    sigset_t sigpipe;
    sigset_t before;
    sigset_t after;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    ASSERT_EQ(sigismember(&before, SIGPIPE), 0);
    companion.write(block.data());
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGPIPE), 0);

    pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
    companion.write(block.data());
    EXPECT_FALSE(isPending(SIGPIPE));
    raise(SIGPIPE);
    companion.write(block.data());
    EXPECT_TRUE(isPending(SIGPIPE)) << "that was somebody else's";
    int taken = 0;
    sigwait(&sigpipe, &taken);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(CompanionSoundTest, WritesOnAfterASignalAndSaysWhatElseIsWrong) {
    int signals = 3;
    fake_sys::hooks().write = [&](int fd, const void* buffer, size_t size) -> ssize_t {
        errno = EINTR;
        return signals-- > 0 ? -1 : fake_sys::real::write(fd, buffer, size);
    };
    EXPECT_EQ(companion.write(block.data()), 0);
    EXPECT_EQ(daemon.record(), block);
    fake_sys::hooks().write = fake_sys::failing(EIO);
    EXPECT_EQ(companion.write(block.data()), -EIO);
}

// Mainly for ThreadSanitizer.
TEST_F(CompanionSoundTest, ServesAThreadForEachWayAndOneForMessages) {
    constexpr uint64_t rounds = 200;
    const uafd_counts before = companion.counts();
    std::thread listener([this] {
        for (uint64_t frames = 0; frames < rounds;) {
            frames += read(8).size() / 2;
            std::this_thread::yield();
        }
    });
    std::thread talker([this] {
        for (uint64_t i = 0; i < rounds; ++i) {
            companion.write(block.data());
        }
    });
    std::thread messenger([this] {
        for (uint64_t events = 0; events < rounds;) {
            companion.sync();
            events += companion.nextEvent() ? 1 : 0;
            std::this_thread::yield();
        }
    });
    for (uint64_t i = 0; i < rounds; ++i) {
        daemon.play(samplesFrom(1, 2));
        while (daemon.send(0, 1) == EAGAIN) {
            std::this_thread::yield();
        }
        companion.counts();
    }
    listener.join();
    talker.join();
    messenger.join();
    const uafd_counts counts = companion.counts();
    EXPECT_EQ(counts.frames_read, rounds);
    EXPECT_EQ(counts.blocks_taken + counts.blocks_refused, rounds);
    EXPECT_EQ(counts.events - before.events, rounds);
    EXPECT_GE(counts.messages_sent + counts.messages_failed, rounds);
}

}  // namespace
}  // namespace uafd
