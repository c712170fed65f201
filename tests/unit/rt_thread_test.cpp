// SPDX-License-Identifier: Apache-2.0
// Real-time threads: their attributes as pthread_create gets them, and which remain when one cannot
// be set.
#include "channel/rt_thread.h"

#include <cerrno>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"

namespace uafd {
namespace {

using fake_log::kTestLog;
using Lines = std::vector<fake_log::Line>;

// The arguments of one pthread_create.
struct Creation {
    void* (*entry)(void*);
    void* argument;
    int policy;
    int priority;
    int inherit;
};

void* entryPoint(void* argument) {
    return argument;
}

class RtThreadTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        fake_sys::hooks().pthread_create = [this](pthread_t* id, const pthread_attr_t* attributes,
                                                  void* (*entry)(void*), void* given) {
            return create(id, attributes, entry, given);
        };
        fake_sys::hooks().pthread_attr_destroy = [this](pthread_attr_t* attributes) {
            EXPECT_EQ(used, attributes);
            ++destroyed;
            errno = EBUSY;  // the caller must not see this errno
            return fake_sys::real::pthread_attr_destroy(attributes);
        };
    }

    int create(pthread_t* id, const pthread_attr_t* attributes, void* (*entry)(void*),
               void* given) {
        EXPECT_EQ(0, destroyed);
        used = attributes;
        sched_param parameters{};
        Creation creation{entry, given, 0, 0, 0};
        pthread_attr_getschedpolicy(attributes, &creation.policy);
        fake_sys::real::pthread_attr_getschedparam(attributes, &parameters);
        creation.priority = parameters.sched_priority;
        pthread_attr_getinheritsched(attributes, &creation.inherit);
        creations.push_back(creation);
        *id = kNewId;
        errno = createErrno;
        return createResult;
    }

    int createThread() { return createRtThread(&threadId, entryPoint, &argument, "UAFTAG"); }

    static constexpr pthread_t kOldId = 11;
    static constexpr pthread_t kNewId = 22;
    pthread_t threadId = kOldId;
    int argument = 0;
    int createResult = 0;
    int createErrno = 0;
    int destroyed = 0;
    const pthread_attr_t* used = nullptr;
    std::vector<Creation> creations;
};

TEST_F(RtThreadTest, CreatesTheThreadAtFifo58) {
    EXPECT_EQ(0, createThread());
    ASSERT_EQ(1U, creations.size());
    EXPECT_EQ(&entryPoint, creations[0].entry);
    EXPECT_EQ(&argument, creations[0].argument);
    EXPECT_EQ(SCHED_FIFO, creations[0].policy);
    EXPECT_EQ(58, creations[0].priority);
    EXPECT_EQ(PTHREAD_EXPLICIT_SCHED, creations[0].inherit);
    EXPECT_EQ(kNewId, threadId);
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(Lines{}, fake_log::lines());
}

TEST_F(RtThreadTest, WithoutThePolicyLeavesThePriorityAlone) {
    fake_sys::hooks().pthread_attr_setschedpolicy = [](pthread_attr_t*, int policy) {
        EXPECT_EQ(SCHED_FIFO, policy);
        return EINVAL;
    };
    int asked = 0;
    fake_sys::hooks().pthread_attr_getschedparam = [&](const pthread_attr_t*, sched_param*) {
        return ++asked;
    };
    fake_sys::hooks().pthread_attr_setschedparam = [&](pthread_attr_t*, const sched_param*) {
        return ++asked;
    };
    EXPECT_EQ(0, createThread());
    EXPECT_EQ(0, asked);
    ASSERT_EQ(1U, creations.size());
    EXPECT_EQ(PTHREAD_INHERIT_SCHED, creations[0].inherit);
    EXPECT_EQ(kNewId, threadId);
    EXPECT_EQ((Lines{kTestLog.error("unable to setschedpolicy\n")}), fake_log::lines());
}

TEST_F(RtThreadTest, SilentlyLeavesAPriorityThatCannotBeRead) {
    fake_sys::hooks().pthread_attr_getschedparam = [](const pthread_attr_t*, sched_param*) {
        return EINVAL;
    };
    int written = 0;
    fake_sys::hooks().pthread_attr_setschedparam = [&](pthread_attr_t*, const sched_param*) {
        return ++written;
    };
    EXPECT_EQ(0, createThread());
    EXPECT_EQ(0, written);
    ASSERT_EQ(1U, creations.size());
    EXPECT_EQ(SCHED_FIFO, creations[0].policy);
    EXPECT_EQ(PTHREAD_INHERIT_SCHED, creations[0].inherit);
    EXPECT_EQ(Lines{}, fake_log::lines());
}

TEST_F(RtThreadTest, ReportsAPriorityThatCannotBeSet) {
    fake_sys::hooks().pthread_attr_setschedparam = [](pthread_attr_t*, const sched_param* wanted) {
        EXPECT_EQ(58, wanted->sched_priority);
        return ENOTSUP;
    };
    EXPECT_EQ(0, createThread());
    ASSERT_EQ(1U, creations.size());
    EXPECT_EQ(PTHREAD_INHERIT_SCHED, creations[0].inherit);
    EXPECT_EQ((Lines{kTestLog.error("unable to set thread priority\n")}), fake_log::lines());
}

TEST_F(RtThreadTest, FailedCreationKeepsTheOldIdAndErrno) {
    createResult = EAGAIN;
    createErrno = ENOMEM;
    EXPECT_EQ(EAGAIN, createThread());
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(kOldId, threadId);
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(Lines{}, fake_log::lines());
}

TEST_F(RtThreadTest, RunsTheEntryOnTheNewThread) {
    fake_sys::reset();
    ASSERT_EQ(0, createThread());
    void* result = nullptr;
    EXPECT_EQ(0, pthread_join(threadId, &result));
    EXPECT_EQ(&argument, result);
}

}  // namespace
}  // namespace uafd
