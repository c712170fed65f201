// SPDX-License-Identifier: Apache-2.0
// The stand-ins themselves: a hook replaces a call, an unset hook passes it on, the log keeps its
// lines.
#include "tests/support/fake_sys.h"

#include <cerrno>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <vector>

#include <android/log.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "tests/support/fake_locks.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_threads.h"

namespace uafd {
namespace {

using fake_log::kChannelLog;
using FakeSysTest = fake_sys::Test;

TEST_F(FakeSysTest, HookReplacesTheCall) {
    fake_sys::hooks().open = fake_sys::failing(EMFILE);
    EXPECT_EQ(-1, open("/dev/null", O_RDONLY));
    EXPECT_EQ(EMFILE, errno);
}

TEST_F(FakeSysTest, UnsetHookReachesTheRealCall) {
    const int fd = open("/dev/null", O_RDONLY);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(0, close(fd));
}

TEST_F(FakeSysTest, WatchedLockIsInTheJournalAndFailsOnDemand) {
    std::vector<std::string> journal;
    FakeLocks locks{journal};
    pthread_mutex_t watched = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t other = PTHREAD_MUTEX_INITIALIZER;
    locks.install();
    locks.watch(watched, "it");
    locks.answer("lock it", EDEADLK, 2);
    EXPECT_EQ(0, pthread_mutex_lock(&watched));
    EXPECT_EQ(0, pthread_mutex_lock(&other));
    EXPECT_EQ(EBUSY, pthread_mutex_trylock(&watched));
    EXPECT_EQ(0, pthread_mutex_unlock(&watched));
    EXPECT_EQ(EDEADLK, pthread_mutex_lock(&watched));
    EXPECT_EQ((std::vector<std::string>{"lock it", "trylock it", "unlock it", "lock it"}), journal);
    EXPECT_EQ(EBUSY, fake_sys::real::pthread_mutex_trylock(&other));
    EXPECT_EQ(0, pthread_mutex_unlock(&other));
}

TEST_F(FakeSysTest, LockThatWouldWaitForItselfIsAFailure) {
    std::vector<std::string> journal;
    FakeLocks locks{journal};
    pthread_mutex_t watched = PTHREAD_MUTEX_INITIALIZER;
    locks.install();
    locks.watch(watched);
    EXPECT_EQ(0, pthread_mutex_lock(&watched));
    EXPECT_NONFATAL_FAILURE(pthread_mutex_lock(&watched), "waits for itself: lock");
    EXPECT_EQ(0, pthread_mutex_unlock(&watched));
    EXPECT_NONFATAL_FAILURE(pthread_mutex_unlock(&watched), "is not held: unlock");
}

TEST_F(FakeSysTest, CreatedThreadRunsWhenTheTestRunsIt) {
    std::vector<std::string> journal;
    FakeThreads threads{journal};
    threads.install();
    int argument = 0;
    pthread_t id = 0;
    const auto entry = [](void* given) {
        ++*static_cast<int*>(given);
        return given;
    };
    EXPECT_EQ(0, pthread_create(&id, nullptr, entry, &argument));
    EXPECT_EQ(0, argument);
    EXPECT_EQ(&argument, threads.created.at(0).run());
    EXPECT_EQ(1, argument);
    threads.refuse(EAGAIN);
    EXPECT_EQ(EAGAIN, pthread_create(&id, nullptr, entry, &argument));
    EXPECT_EQ(0, pthread_join(id, nullptr));
    EXPECT_EQ((std::vector<std::string>{"create", "create", "join"}), journal);
    EXPECT_EQ((std::vector<pthread_t>{1}), threads.joined);
}

TEST_F(FakeSysTest, LogKeepsLevelTagAndExactText) {
    __android_log_print(ANDROID_LOG_ERROR, "UAFCH", "state %d", 3);
    EXPECT_EQ((std::vector<fake_log::Line>{kChannelLog.error("state 3")}), fake_log::lines());
}

}  // namespace
}  // namespace uafd
