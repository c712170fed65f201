// SPDX-License-Identifier: Apache-2.0
// Runs the cases of companion_module_test.py and plays the daemon's ends.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/streaming_daemon.h"

namespace uafd {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using Message = DaemonEnds::Message;

class PythonTest : public testing::Test {
  protected:
    void SetUp() override { signal(SIGPIPE, SIG_IGN); }
    // With the module and the shared library of this build.
    ChildProcess python(std::vector<std::string> words) const {
        words.insert(words.begin(), {"/usr/bin/python3", "-B", "-W", "error"});
        return ChildProcess(words, [this] {
            setenv("PYTHONPATH", MODULES, 1);
            setenv("LD_LIBRARY_PATH", LIBRARIES, 1);
            setenv("FOLDER", folder.path().c_str(), 1);
            setenv("HEADER", HEADER, 1);
            if (chdir(folder.path().c_str()) != 0) {
                _exit(126);
            }
        });
    }
    void expectGood(const std::string& part) const {
        ChildProcess test =
            python({TESTS "/companion_module_test.py", "CompanionTest.test_" + part});
        EXPECT_EQ(test.wait(), 0) << test.errors();
        EXPECT_THAT(test.errors(), EndsWith("\nOK\n"));
    }

    TempDir folder;
};

TEST_F(PythonTest, HearsAndIsHeard) {
    StreamingOptions options;
    options.left = 1000;
    options.right = -1000;
    options.echoes = true;
    const StreamingDaemon daemon(folder, options);
    expectGood("sound");
}

TEST_F(PythonTest, IsToldAndSets) {
    StreamingOptions options;
    options.answer = {{0, 1}, {9, 9}, {3, static_cast<uint16_t>(-1280)}, {6, 1}};
    StreamingDaemon daemon(folder, options);
    expectGood("messages");
    EXPECT_THAT(
        daemon.messages(),
        ElementsAre(Message{7, 0}, Message{3, static_cast<uint16_t>(-2560)}, Message{5, 1}));
}

TEST_F(PythonTest, EndsItsWaits) {
    expectGood("waits_end");
}

TEST_F(PythonTest, SaysWhatIsWrong) {
    expectGood("faults");
}

TEST_F(PythonTest, ClosesWhatIsForgotten) {
    expectGood("closes_what_is_forgotten");
}

TEST_F(PythonTest, OpensAsItIsAsked) {
    expectGood("options");
}

TEST_F(PythonTest, AgreesWithTheHeader) {
    expectGood("header");
}

TEST_F(PythonTest, RunsTheExample) {
    const StreamingDaemon daemon(folder, {});
    ChildProcess example = python({EXAMPLES "/record.py", folder.path()});
    EXPECT_EQ(example.wait(), 0) << example.errors();
    const auto size = std::filesystem::file_size(folder.path() + "/heard.wav");
    EXPECT_GE(size, 44U + 4 * 5 * 48000);
    EXPECT_LT(size, 44U + 4 * 5 * 48000 + 4 * 480);
}

}  // namespace
}  // namespace uafd
