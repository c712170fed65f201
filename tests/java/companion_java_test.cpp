// SPDX-License-Identifier: Apache-2.0
// Runs CompanionTest.java and plays the daemon's ends.
#include <csignal>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/child_process.h"
#include "tests/support/streaming_daemon.h"

namespace uafd {
namespace {

using testing::ElementsAre;
using Message = DaemonEnds::Message;

class JavaTest : public testing::Test {
  protected:
    void SetUp() override { signal(SIGPIPE, SIG_IGN); }
    // -Xcheck:jni reports errors of the native half.
    void expectGood(const std::string& part) const {
        ChildProcess java({JAVA, "-Xcheck:jni", "-Djava.library.path=" LIBRARIES, "-cp", CLASSES,
                           "CompanionTest", part, folder.path()});
        EXPECT_EQ(java.wait(), 0);
        EXPECT_EQ(java.output(), "good\n");
        EXPECT_EQ(java.errors(), "");
    }

    TempDir folder;
};

TEST_F(JavaTest, HearsAndIsHeard) {
    StreamingOptions options;
    options.left = 1000;
    options.right = -1000;
    options.echoes = true;
    const StreamingDaemon daemon(folder, options);
    expectGood("sound");
}

TEST_F(JavaTest, IsToldAndSets) {
    StreamingOptions options;
    options.answer = {{0, 1}, {9, 9}, {3, static_cast<uint16_t>(-1280)}, {6, 1}};
    StreamingDaemon daemon(folder, options);
    expectGood("messages");
    EXPECT_THAT(
        daemon.messages(),
        ElementsAre(Message{7, 0}, Message{3, static_cast<uint16_t>(-2560)}, Message{5, 1}));
}

TEST_F(JavaTest, EndsItsWaits) {
    StreamingOptions options;
    options.answer = {{0, 1}};
    const StreamingDaemon daemon(folder, options);
    expectGood("endings");
}

TEST_F(JavaTest, IsClosedBesideCallsOfOtherThreads) {
    const StreamingDaemon daemon(folder, {});
    expectGood("races");
}

TEST_F(JavaTest, OpensAsItIsAsked) {
    expectGood("options");
    struct stat found {};
    ASSERT_EQ(stat((folder.path() + "/usbAudioFifoTx").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0604U);
}

TEST_F(JavaTest, SaysWhatIsWrong) {
    expectGood("faults");
}

}  // namespace
}  // namespace uafd
