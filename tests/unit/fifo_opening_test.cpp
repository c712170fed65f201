// A blocking open of a FIFO, and how another thread lets it out when the FIFO has lost its name.
#include "channel/fifo_opening.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/fake_sys.h"
#include "tests/support/temp_dir.h"
#include "tests/support/thread_state.h"

namespace {

class FifoOpeningTest : public fake_sys::Test, public testing::WithParamInterface<int> {
  protected:
    void SetUp() override {
        fake_sys::Test::SetUp();
        makeFifo();
        fake_sys::hooks().open = [this](const char* path, int flags) {
            openerTid = gettid();
            return fake_sys::real::open(path, flags);
        };
        fake_sys::hooks().openat = fake_sys::real::openat;
        fake_sys::hooks().nanosleep = [](const timespec*, timespec*) {
            std::this_thread::yield();
            return 0;
        };
    }

    void makeFifo() { ASSERT_EQ(0, mkfifo(path.c_str(), 0600)); }
    void replaceFifo() {
        ASSERT_EQ(0, unlink(path.c_str()));
        makeFifo();
    }
    // Between the two looks that the opener takes at the path.
    void onceItHasLooked(const std::function<void()>& act) {
        fake_sys::hooks().openat = [act](int folder, const char* name, int flags) {
            const int handle = fake_sys::real::openat(folder, name, flags);
            const int lookErrno = errno;
            if ((flags & O_PATH) != 0) {
                act();
            }
            errno = lookErrno;
            return handle;
        };
    }
    void beginOpening() {
        opener = std::thread([this] {
            fd = opening.open(path.c_str(), GetParam());
            openErrno = errno;
            ended = true;
        });
    }
    void startOpening() {
        beginOpening();
        // Of the calls that the opener makes from its hook on, only the open sleeps.
        while (openerTid == 0 || !isAsleep(openerTid)) {
            std::this_thread::yield();
        }
    }
    // Until the opener is out; a release that came before it waited has no effect, and is repeated.
    void releaseUntilEnded() {
        while (!ended) {
            opening.releaseIfReplaced();
            std::this_thread::yield();
        }
        opener.join();
    }
    int otherEnd() const { return GetParam() == O_RDONLY ? O_WRONLY : O_RDONLY; }

    TempDir dir;
    const std::string path = dir.path() + "/fifo";
    FifoOpening opening;
    std::thread opener;
    std::atomic<pid_t> openerTid{0};
    std::atomic<bool> ended{false};
    int fd = -1;
    int openErrno = 0;
};

TEST_P(FifoOpeningTest, LastsUntilTheAppOpensTheOtherEnd) {
    startOpening();
    for (int i = 0; i < 100; ++i) {
        opening.releaseIfReplaced();
        std::this_thread::yield();
    }
    EXPECT_FALSE(ended);
    const int app = fake_sys::real::open(path.c_str(), otherEnd());
    opener.join();
    EXPECT_GE(fd, 0);
    close(app);
    close(fd);
}

TEST_P(FifoOpeningTest, IsLetOutOfAFifoThatWasReplaced) {
    startOpening();
    replaceFifo();
    releaseUntilEnded();
    EXPECT_GE(fd, 0);
    close(fd);
}

TEST_P(FifoOpeningTest, IsLetOutOfAFifoThatWasDeleted) {
    startOpening();
    ASSERT_EQ(0, unlink(path.c_str()));
    releaseUntilEnded();
    EXPECT_GE(fd, 0);
    close(fd);
}

// The FIFO that it saw is the one that it waits on.
TEST_P(FifoOpeningTest, IsLetOutOfAFifoThatIsReplacedAsItOpens) {
    onceItHasLooked([this] { replaceFifo(); });
    startOpening();
    replaceFifo();
    releaseUntilEnded();
    EXPECT_GE(fd, 0);
    close(fd);
}

TEST_P(FifoOpeningTest, DoesNotWaitOnAFifoThatAppearsAsItOpens) {
    ASSERT_EQ(0, unlink(path.c_str()));
    onceItHasLooked([this] { makeFifo(); });
    beginOpening();
    opener.join();
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(ENOENT, openErrno);
}

TEST_P(FifoOpeningTest, WhatWasLetOutSeesAnAppThatHasGone) {
    startOpening();
    replaceFifo();
    releaseUntilEnded();
    char byte = 0;
    if (GetParam() == O_RDONLY) {
        EXPECT_EQ(0, read(fd, &byte, 1));
    } else {
        signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(-1, write(fd, &byte, 1));
        EXPECT_EQ(EPIPE, errno);
        signal(SIGPIPE, SIG_DFL);
    }
    close(fd);
}

TEST_P(FifoOpeningTest, AbandonWaitsForTheAppAsLongAsTheFifoHasItsName) {
    startOpening();
    std::atomic<bool> abandoned{false};
    std::thread abandoner([&] {
        opening.abandon();
        abandoned = true;
    });
    for (int i = 0; i < 1000; ++i) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(abandoned);
    const int app = fake_sys::real::open(path.c_str(), otherEnd());
    abandoner.join();
    opener.join();
    EXPECT_GE(fd, 0);
    close(app);
    close(fd);
}

TEST_P(FifoOpeningTest, AbandonEndsWhenTheAppReplacesTheFifoMeanwhile) {
    startOpening();
    std::thread abandoner([this] { opening.abandon(); });
    replaceFifo();
    abandoner.join();
    opener.join();
    close(fd);
}

TEST_P(FifoOpeningTest, NoOpenBeginsOnceAbandonedUntilAllowedAgain) {
    opening.abandon();
    errno = 0;
    EXPECT_EQ(-1, opening.open(path.c_str(), GetParam()));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0, openerTid);
    opening.allow();
    startOpening();
    const int app = fake_sys::real::open(path.c_str(), otherEnd());
    opener.join();
    EXPECT_GE(fd, 0);
    close(app);
    close(fd);
}

TEST_P(FifoOpeningTest, AFailureKeepsItsErrnoAndLeavesNothingOpen) {
    ASSERT_EQ(0, unlink(path.c_str()));
    const int next = dup(0);
    close(next);
    EXPECT_EQ(-1, opening.open(path.c_str(), GetParam()));
    EXPECT_EQ(ENOENT, errno);
    const int after = dup(0);
    EXPECT_EQ(next, after);
    close(after);
}

INSTANTIATE_TEST_SUITE_P(EachEnd, FifoOpeningTest, testing::Values(O_RDONLY, O_WRONLY),
                         [](const auto& info) {
                             return info.param == O_RDONLY ? "Reading" : "Writing";
                         });

}  // namespace
