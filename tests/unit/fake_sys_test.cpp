// SPDX-License-Identifier: Apache-2.0
// The stand-ins themselves: a hook replaces a call, an unset hook passes it on, the log keeps
// lines.
#include "tests/support/fake_sys.h"

#include <cerrno>
#include <fcntl.h>

#include <android/log.h>
#include <gtest/gtest.h>

#include "tests/support/fake_log.h"

namespace {

using fake_log::UAFCH;
using FakeSysTest = fake_sys::Test;

TEST_F(FakeSysTest, HookReplacesTheCall) {
    fake_sys::hooks().open = [](const char*, int) {
        errno = EMFILE;
        return -1;
    };
    EXPECT_EQ(-1, open("/dev/null", O_RDONLY));
    EXPECT_EQ(EMFILE, errno);
}

TEST_F(FakeSysTest, UnsetHookReachesTheRealCall) {
    const int fd = open("/dev/null", O_RDONLY);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(0, close(fd));
}

TEST_F(FakeSysTest, LogKeepsLevelTagAndExactText) {
    __android_log_print(ANDROID_LOG_ERROR, "UAFCH", "state %d", 3);
    EXPECT_EQ((std::vector<fake_log::Line>{UAFCH.error("state 3")}), fake_log::lines());
}

}  // namespace
