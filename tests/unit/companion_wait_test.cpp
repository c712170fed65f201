// SPDX-License-Identifier: Apache-2.0
// Waiting: what is ready, when the next block is due, and what ends a wait.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <thread>

#include <gtest/gtest.h>
#include <sys/time.h>

#include "tests/unit/companion_test.h"
#include "tests/unit/eventually.h"

namespace uafd {
namespace {

class CompanionWaitTest : public CompanionTest {
  protected:
    void SetUp() override {
        fake_sys::hooks().clock_gettime = [this](clockid_t clock, timespec* time) {
            EXPECT_EQ(CLOCK_MONOTONIC, clock);
            *time = {nowMs / 1000, nowMs % 1000 * 1000000};
            return 0;
        };
        openBoth();
        EXPECT_EQ(UAFD_READY_BLOCK, companion.wait());
    }
    // Waits at a time when something is ready, so that the call returns at once.
    int waitAt(int64_t ms) {
        nowMs = ms;
        return companion.wait();
    }

    int64_t nowMs = 1000;
};

TEST_F(CompanionWaitTest, TellsSoundAndEvents) {
    const std::vector<int16_t> frames(480);
    daemon.play(frames);
    EXPECT_EQ(UAFD_READY_SOUND, companion.wait());
    daemon.send(0, 1);
    EXPECT_EQ(UAFD_READY_SOUND | UAFD_READY_EVENT, companion.wait());
    int16_t samples[960];
    EXPECT_EQ(240, companion.read(samples, 480));
    EXPECT_EQ(UAFD_READY_EVENT, companion.wait());
}

TEST_F(CompanionWaitTest, TellsABlockEveryTenMilliseconds) {
    daemon.send(0, 1);  // stays in the socket, untaken
    for (int block = 1; block < 10; ++block) {
        EXPECT_EQ(UAFD_READY_EVENT, waitAt(1000 + 10 * block - 1));
        EXPECT_EQ(UAFD_READY_EVENT | UAFD_READY_BLOCK, waitAt(1000 + 10 * block));
        EXPECT_EQ(UAFD_READY_EVENT, waitAt(1000 + 10 * block));
    }
}

TEST_F(CompanionWaitTest, KeepsTheBeatOfWhoComesLate) {
    daemon.send(0, 1);
    EXPECT_EQ(UAFD_READY_EVENT | UAFD_READY_BLOCK, waitAt(1030));  // the block that was due at 1010
    EXPECT_EQ(UAFD_READY_EVENT | UAFD_READY_BLOCK, waitAt(1030));
    EXPECT_EQ(UAFD_READY_EVENT | UAFD_READY_BLOCK, waitAt(1030));
    EXPECT_EQ(UAFD_READY_EVENT, waitAt(1030));
    EXPECT_EQ(UAFD_READY_EVENT | UAFD_READY_BLOCK, waitAt(1040));
}

TEST_F(CompanionWaitTest, GoesOnFromThereForWhoComesVeryLate) {
    daemon.send(0, 1);
    EXPECT_EQ(UAFD_READY_EVENT | UAFD_READY_BLOCK, waitAt(1031));
    EXPECT_EQ(UAFD_READY_EVENT, waitAt(1040));
    EXPECT_EQ(UAFD_READY_EVENT | UAFD_READY_BLOCK, waitAt(1041));
}

TEST_F(CompanionWaitTest, SleepsUntilTheBlock) {
    int looks = 0;
    fake_sys::hooks().clock_gettime = [&](clockid_t clock, timespec* time) {
        ++looks;
        return fake_sys::real::clock_gettime(clock, time);
    };
    for (int block = 0; block < 3; ++block) {
        EXPECT_EQ(UAFD_READY_BLOCK, companion.wait());
    }
    EXPECT_LE(looks, 12) << "one before and one after each sleep would do";
}

TEST_F(CompanionWaitTest, SleepsUntilAnEventWithoutTheMicrophonesFifo) {
    companion.close();
    openBesideDaemon(UAFD_EVENTS);
    std::atomic<int> tid{0};
    std::thread waiter([&] {
        tid = gettid();
        EXPECT_EQ(UAFD_READY_EVENT, companion.wait());
    });
    EXPECT_TRUE(fallsAsleep(tid));
    daemon.send(0, 1);
    waiter.join();
}

TEST_F(CompanionWaitTest, ReturnsAfterASignal) {
    struct sigaction before {};
    struct sigaction nothing {};
    nothing.sa_handler = [](int) {};
    sigaction(SIGALRM, &nothing, &before);
    // Signals again and again, since the first one may come before the wait.
    const itimerval often{{0, 1000}, {0, 1000}};
    const itimerval never{};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(-EINTR, companion.wait());
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

// Uses the real clock.
TEST_F(CompanionWaitTest, EndsWhenItsTimeIsOver) {
    fake_sys::hooks().clock_gettime = nullptr;
    ASSERT_EQ(0, open(0));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0, companion.waitFor(50));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
    EXPECT_EQ(0, companion.waitFor(0));
}

TEST_F(CompanionWaitTest, EndsWithABlockThatIsDueBefore) {
    fake_sys::hooks().clock_gettime = nullptr;
    EXPECT_EQ(UAFD_READY_BLOCK, companion.waitFor(INT_MAX));
    EXPECT_EQ(UAFD_READY_BLOCK, companion.waitFor(INT_MAX));
}

TEST_F(CompanionWaitTest, HasNoTimeLimitBelowZero) {
    daemon.send(0, 1);
    EXPECT_EQ(UAFD_READY_EVENT, companion.waitFor(-1));
    EXPECT_EQ(UAFD_READY_EVENT, companion.waitFor(INT_MIN));
}

TEST_F(CompanionWaitTest, IsEndedByAnotherThread) {
    ASSERT_EQ(0, open(0));
    std::atomic<int> tid{0};
    std::thread waiter([&] {
        tid = gettid();
        EXPECT_EQ(UAFD_READY_WAKE, companion.wait());
    });
    EXPECT_TRUE(fallsAsleep(tid));
    companion.wake();
    waiter.join();
}

TEST_F(CompanionWaitTest, IsEndedByWakesThatCameBeforeItAndOnlyOnce) {
    companion.wake();
    companion.wake();
    EXPECT_EQ(UAFD_READY_WAKE, companion.waitFor(0));
    EXPECT_EQ(0, companion.waitFor(0));
    companion.wake();
    daemon.send(0, 1);
    EXPECT_EQ(UAFD_READY_WAKE | UAFD_READY_EVENT, companion.waitFor(0));
}

TEST_F(CompanionWaitTest, IsEndedByASignalHandlersWake) {
    static uafd::Companion* woken = nullptr;
    woken = &companion;
    struct sigaction before {};
    struct sigaction wakes {};
    wakes.sa_handler = [](int) { woken->wake(); };
    sigaction(SIGUSR1, &wakes, &before);
    raise(SIGUSR1);
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(UAFD_READY_WAKE, companion.waitFor(0));
}

}  // namespace
}  // namespace uafd
