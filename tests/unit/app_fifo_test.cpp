// SPDX-License-Identifier: Apache-2.0
// One end of an app's FIFO: how it is opened, read and written, and how a thread is released from a
// wait for an app that does not come.
#include "channel/app_fifo.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/eventually.h"

namespace uafd {
namespace {

using fake_log::kTestLog;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr size_t kBlockBytes = 960;
constexpr const char* kTag = kTestLog.name;

// ---- The calls that are made -------------------------------------------------------------------

class AppFifoTest : public fake_sys::Test {
  protected:
    bool open(const char* path = "/tmp/fifo") {
        return fifo.openEnd(path, O_WRONLY, kBlockBytes, kTag);
    }

    AppFifo fifo;
};

TEST_F(AppFifoTest, TheSignalsHandlerDoesNothingAndLetsNoCallGoOn) {
    std::vector<int> signals;
    fake_sys::hooks().sigaction = [&](int number, const struct sigaction* action,
                                      struct sigaction* old) {
        signals.push_back(number);
        EXPECT_EQ(0, action->sa_flags & SA_RESTART);
        EXPECT_EQ(nullptr, old);
        action->sa_handler(number);
        return 0;
    };
    const AppFifo fresh;
    EXPECT_THAT(signals, ElementsAre(SIGURG));
    EXPECT_FALSE(fresh.isOpen());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(AppFifoTest, OpensThePathAndReportsTheCapacityThatWasGranted) {
    std::vector<std::string> calls;
    fake_sys::hooks().open = [&](const char* path, int flags) {
        calls.push_back(std::string(path) + " " + std::to_string(flags));
        return 5;
    };
    fake_sys::hooks().fcntl = [&](int fd, int command, long argument) {
        calls.push_back(
            std::to_string(fd) + (command == F_SETPIPE_SZ ? " set " : " get ") +
            (command == F_SETPIPE_SZ ? std::to_string(static_cast<int>(argument)) : ""));
        return command == F_SETPIPE_SZ ? -1 : 4096;
    };
    EXPECT_TRUE(open());
    EXPECT_TRUE(fifo.isOpen());
    EXPECT_TRUE(fifo.isPipe());
    EXPECT_THAT(calls, ElementsAre("/tmp/fifo 1", "5 set 960", "5 get "));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kTestLog.debug("/tmp/fifo opened buffer size 4096\n")));
}

TEST_F(AppFifoTest, AnythingElseInTheFifosPlaceIsNoPipe) {
    fake_sys::hooks().open = [](const char*, int) { return 5; };
    fake_sys::hooks().fcntl = [](int, int, long) { return -1; };
    EXPECT_TRUE(open());
    EXPECT_TRUE(fifo.isOpen());
    EXPECT_FALSE(fifo.isPipe());
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kTestLog.debug("/tmp/fifo opened buffer size -1\n")));
}

TEST_F(AppFifoTest, AFailedOpenLeavesItClosed) {
    fake_sys::hooks().open = fake_sys::failing(ENOENT);
    fake_sys::hooks().fcntl = [](int, int, long) {
        ADD_FAILURE() << "no descriptor to ask";
        return -1;
    };
    EXPECT_FALSE(open());
    EXPECT_FALSE(fifo.isOpen());
    EXPECT_FALSE(fifo.wasLetOut());
    EXPECT_THAT(fake_log::lines(), ElementsAre(kTestLog.error("failed to open /tmp/fifo\n")));
}

TEST_F(AppFifoTest, AnUnsetPathFailsWithoutAnOpen) {
    fake_sys::hooks().open = [](const char*, int) {
        ADD_FAILURE() << "no path to open";
        return -1;
    };
    EXPECT_FALSE(open(nullptr));
    EXPECT_FALSE(fifo.isOpen());
    EXPECT_THAT(fake_log::lines(), ElementsAre(kTestLog.error("failed to open (null)\n")));
}

TEST_F(AppFifoTest, ADescriptorOfZeroCountsAsNotOpen) {
    fake_sys::hooks().fcntl = [](int, int, long) { return 4096; };
    for (const int descriptor : {0, 1}) {
        fake_sys::hooks().open = [=](const char*, int) { return descriptor; };
        EXPECT_TRUE(open());
        EXPECT_EQ(descriptor == 1, fifo.isOpen());
    }
}

TEST_F(AppFifoTest, ClosesWhatItOpened) {
    std::vector<int> closed;
    fake_sys::hooks().open = [](const char*, int) { return 5; };
    fake_sys::hooks().fcntl = [](int, int, long) { return 4096; };
    fake_sys::hooks().close = [&](int fd) {
        closed.push_back(fd);
        return 0;
    };
    EXPECT_TRUE(open());
    fifo.close();
    EXPECT_FALSE(fifo.isOpen());
    EXPECT_THAT(closed, ElementsAre(5));
}

// A signal may come after the wait that it should end is over.
TEST_F(AppFifoTest, WhatASignalInterruptsIsDoneAgain) {
    int calls = 0;
    const auto interruptedTwice = [&](int result) {
        errno = EINTR;
        return ++calls % 3 == 0 ? result : -1;
    };
    fake_sys::hooks().open = [&](const char*, int) { return interruptedTwice(5); };
    fake_sys::hooks().read = [&](int, void*, size_t) { return interruptedTwice(7); };
    fake_sys::hooks().write = [&](int, const void*, size_t) { return interruptedTwice(9); };
    char block[kBlockBytes] = {};
    EXPECT_TRUE(open());
    EXPECT_EQ(7, fifo.read(block, sizeof block));
    EXPECT_EQ(9, fifo.write(block, sizeof block));
    EXPECT_EQ(9, calls);
    EXPECT_FALSE(fifo.wasLetOut());
    EXPECT_EQ(1U, fake_log::lines().size());
}

TEST_F(AppFifoTest, OtherErrorsEndEachCallAtOnce) {
    int calls = 0;
    const auto fail = [&](int error) {
        ++calls;
        errno = error;
        return -1;
    };
    fake_sys::hooks().open = [&](const char*, int) { return fail(EACCES); };
    fake_sys::hooks().read = [&](int, void*, size_t) { return fail(EIO); };
    fake_sys::hooks().write = [&](int, const void*, size_t) { return fail(EPIPE); };
    char block[kBlockBytes] = {};
    EXPECT_FALSE(open());
    EXPECT_EQ(-1, fifo.read(block, sizeof block));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, fifo.write(block, sizeof block));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(3, calls);
    EXPECT_FALSE(fifo.wasLetOut());
}

// ---- Waits, in a real FIFO ---------------------------------------------------------------------

// The parameter is the flag with which this class opens its end.
class AppFifoWaitTest : public fake_sys::Test, public testing::WithParamInterface<int> {
  protected:
    void SetUp() override {
        makeFifo(path);
        fake_sys::hooks().nanosleep = [](const timespec*, timespec*) {
            std::this_thread::yield();
            return 0;
        };
        fake_sys::hooks().open = [this](const char* file, int flags) {
            beforeOpen();
            userTid = gettid();
            return fake_sys::real::open(file, flags);
        };
    }
    void TearDown() override {
        if (fifo.isOpen()) {
            fifo.close();
        }
        fake_sys::Test::TearDown();
    }

    static void makeFifo(const std::string& name) { ASSERT_EQ(0, mkfifo(name.c_str(), 0600)); }
    // Replaces the FIFO without a moment in which there is none.
    void replaceFifo() {
        makeFifo(path + ".new");
        ASSERT_EQ(0, rename((path + ".new").c_str(), path.c_str()));
    }
    int openOtherEnd(int flags = 0) const {
        return fake_sys::real::open(path.c_str(),
                                    (GetParam() == O_RDONLY ? O_WRONLY : O_RDONLY) | flags);
    }

    void startUser(const std::function<void()>& use) {
        userTid = 0;
        running = 1;
        user = std::thread([this, use] {
            use();
            running = 0;
        });
    }
    void startOpening() {
        startUser([this] { opened = fifo.openEnd(path.c_str(), GetParam(), kBlockBytes, kTag); });
    }

    TempDir dir;
    const std::string path = dir.path() + "/fifo";
    AppFifo fifo;
    std::function<void()> beforeOpen = [] {};
    std::thread user;
    std::atomic<pid_t> userTid{0};  // once it is set, the thread sleeps only in calls on the FIFO
    std::atomic<int32_t> running{0};
    bool opened = false;
};

TEST_P(AppFifoWaitTest, AnOpenLastsUntilTheAppComesHoweverOftenItLooks) {
    startOpening();
    ASSERT_TRUE(fallsAsleep(userTid));
    for (int i = 0; i < 100; ++i) {
        fifo.lookAgain();
    }
    EXPECT_EQ(1, running);
    const int app = openOtherEnd();
    user.join();
    EXPECT_TRUE(opened);
    EXPECT_TRUE(fifo.isOpen());
    close(app);
}

TEST_P(AppFifoWaitTest, ALookFindsTheFifoThatReplacedTheOneWaitedOn) {
    startOpening();
    ASSERT_TRUE(fallsAsleep(userTid));
    replaceFifo();
    fifo.lookAgain();
    const int app = openOtherEnd();
    user.join();
    EXPECT_TRUE(opened);
    close(app);
}

TEST_P(AppFifoWaitTest, ALookFindsThatTheFifoHasGone) {
    startOpening();
    ASSERT_TRUE(fallsAsleep(userTid));
    ASSERT_EQ(0, unlink(path.c_str()));
    fifo.lookAgain();
    user.join();
    EXPECT_FALSE(opened);
    EXPECT_FALSE(fifo.wasLetOut());
    EXPECT_THAT(fake_log::lines(), ElementsAre(kTestLog.error("failed to open " + path + "\n")));
}

// The thread has found the old FIFO but does not wait yet: the first signal is lost.
TEST_P(AppFifoWaitTest, ALookThatIsAskedForJustBeforeTheWaitIsNotLost) {
    std::atomic<int> signals{0};
    fake_sys::hooks().pthread_kill = [&](pthread_t thread, int number) {
        const int result = fake_sys::real::pthread_kill(thread, number);
        ++signals;
        return result;
    };
    std::thread event;
    beforeOpen = [&, looks = 0]() mutable {
        if (++looks > 1) {
            return;
        }
        event = std::thread([&] {
            replaceFifo();
            fifo.lookAgain();
        });
        while (signals == 0) {
            std::this_thread::yield();
        }
    };
    // The two steps of open(2); the event comes between them.
    fake_sys::hooks().open = [&](const char* name, int flags) {
        const int found = fake_sys::real::open(name, O_PATH);
        beforeOpen();
        const std::string foundPath = "/proc/self/fd/" + std::to_string(found);
        const int fd = fake_sys::real::open(foundPath.c_str(), flags);
        const int openErrno = errno;
        close(found);
        errno = openErrno;
        return fd;
    };
    startOpening();
    while (signals == 0) {
        std::this_thread::yield();
    }
    const int app = openOtherEnd();
    user.join();
    event.join();
    EXPECT_TRUE(opened);
    EXPECT_GE(signals, 2);
    close(app);
}

TEST_P(AppFifoWaitTest, NoLookIsAskedOfAThreadThatDoesNotOpen) {
    fake_sys::hooks().pthread_kill = [](pthread_t, int) {
        ADD_FAILURE() << "nobody to signal";
        return 0;
    };
    fifo.lookAgain();
    startOpening();
    const int app = openOtherEnd();
    user.join();
    fifo.lookAgain();
    EXPECT_TRUE(opened);
    close(app);
}

TEST_P(AppFifoWaitTest, TheStopEndsAnOpenAndNothingIsLogged) {
    startOpening();
    ASSERT_TRUE(fallsAsleep(userTid));
    fifo.endWaits(user.native_handle(), running);
    EXPECT_EQ(0, running);
    user.join();
    EXPECT_FALSE(opened);
    EXPECT_FALSE(fifo.isOpen());
    EXPECT_TRUE(fifo.waitsEnded());
    EXPECT_TRUE(fifo.wasLetOut());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_P(AppFifoWaitTest, TheStopWaitsForNoThreadThatIsGone) {
    running = 1;
    fake_sys::hooks().pthread_kill = [](pthread_t, int) { return ESRCH; };
    fifo.endWaits(pthread_self(), running);
    EXPECT_TRUE(fifo.waitsEnded());
    EXPECT_FALSE(fifo.wasLetOut());
}

TEST_P(AppFifoWaitTest, WaitsAreAllowedAgain) {
    startOpening();
    fifo.endWaits(user.native_handle(), running);
    user.join();
    fifo.allowWaits();
    EXPECT_FALSE(fifo.waitsEnded());
    EXPECT_FALSE(fifo.wasLetOut());
    startOpening();
    const int app = openOtherEnd();
    user.join();
    EXPECT_TRUE(opened);
    EXPECT_FALSE(fifo.wasLetOut());
    close(app);
}

// An app that keeps its end open and does nothing: the reader finds nothing, the writer no room.
TEST_P(AppFifoWaitTest, TheStopEndsAReadOrAWriteAndTheFifoStaysOpen) {
    int app = -1;
    startUser([&] { app = openOtherEnd(); });
    ASSERT_TRUE(fifo.openEnd(path.c_str(), GetParam(), kBlockBytes, kTag));
    user.join();
    ssize_t result = 0;
    startUser([&] {
        std::array<char, kBlockBytes> block{};
        userTid = gettid();
        do {
            result = GetParam() == O_RDONLY ? fifo.read(block.data(), block.size())
                                            : fifo.write(block.data(), block.size());
        } while (result > 0);
    });
    ASSERT_TRUE(fallsAsleep(userTid));
    fifo.endWaits(user.native_handle(), running);
    user.join();
    EXPECT_EQ(-1, result);
    EXPECT_TRUE(fifo.wasLetOut());
    EXPECT_TRUE(fifo.isOpen());
    close(app);
}

// Each round meets the opener at another moment: before, in and after its wait.
TEST_P(AppFifoWaitTest, TwoThousandRoundsLetEveryOpenerOut) {
    for (int round = 0; round < 2000; ++round) {
        SCOPED_TRACE(round);
        fifo.allowWaits();
        startOpening();
        for (int i = round % 7; i > 0; --i) {
            std::this_thread::yield();
        }
        int app = -1;
        switch (round % 4) {
            case 0:  // nobody opens the other end
                fifo.endWaits(user.native_handle(), running);
                break;
            case 1:  // nobody can open the other end
                ASSERT_EQ(0, unlink(path.c_str()));
                fifo.endWaits(user.native_handle(), running);
                makeFifo(path);
                break;
            case 2:  // replaced, and the app waits at the new one
                replaceFifo();
                fifo.lookAgain();
                app = openOtherEnd();
                break;
            default:  // deleted
                ASSERT_EQ(0, unlink(path.c_str()));
                fifo.lookAgain();
                user.join();
                makeFifo(path);
        }
        if (user.joinable()) {
            user.join();
        }
        ASSERT_EQ(round % 4 == 2, opened);
        if (opened) {
            fifo.close();
            close(app);
        }
        fake_log::clear();
    }
}

INSTANTIATE_TEST_SUITE_P(EachEnd, AppFifoWaitTest, testing::Values(O_RDONLY, O_WRONLY),
                         [](const auto& info) {
                             return info.param == O_RDONLY ? "Reading" : "Writing";
                         });

}  // namespace
}  // namespace uafd
