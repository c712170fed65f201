// The companion tool's check of a daemon, good or faulty.
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/companion_tool.h"
#include "tests/support/streaming_daemon.h"

namespace {

using testing::HasSubstr;
using Message = DaemonEnds::Message;

TEST_F(ToolTest, ChecksADaemonThatIsNotThere) {
    EXPECT_EQ(run({"check", "--wait", "0.1"}), 1);
    EXPECT_THAT(tool->output(), HasSubstr("FAIL  a sync-up is answered: no answer\n"));
    EXPECT_THAT(tool->output(), HasSubstr("FAIL  the speaker's volume is taken: no daemon runs\n"));
    EXPECT_THAT(tool->output(), HasSubstr("FAIL  the speaker's mute is taken: no daemon runs\n"));
    EXPECT_THAT(tool->output(), HasSubstr("\n0 passed, 9 failed\n"));
}

TEST_F(ToolTest, DoesNotPassACheckThatIsInterrupted) {
    start({"check"});
    ASSERT_TRUE(waitFor([&] { return !tool->errors().empty(); }));
    tool->send(SIGINT);
    EXPECT_EQ(tool->wait(), 1);
    EXPECT_EQ(tool->output(), "0 passed, 0 failed, interrupted\n");
}

// A daemon with a fault, and what the check of it says.
struct Fault {
    Fault(const char* verdict, StreamingOptions options)
        : line(std::string("FAIL  ") + verdict + "\n"),
          streaming(folder, std::move(options)),
          tool({TOOL_PROGRAM, "check", "--wait", "2", "--directory", folder.path()}) {}

    const std::string line;
    const TempDir folder;
    const StreamingDaemon streaming;
    ChildProcess tool;
};

StreamingOptions answering(std::vector<Message> answer) {
    StreamingOptions options;
    options.answer = std::move(answer);
    return options;
}

StreamingOptions playing(int16_t left, int16_t right) {
    StreamingOptions options;
    options.left = left;
    options.right = right;
    return options;
}

StreamingOptions streaming(bool plays, bool records) {
    StreamingOptions options;
    options.plays = plays;
    options.records = records;
    return options;
}

// All at once: a check takes its time.
TEST_F(ToolTest, FindsAFaultyDaemonOut) {
    Fault faults[] = {
        {"a sync-up is answered: no answer", answering({})},
        {"a sync-up is answered: the answer is not whole", answering({{0, 1}})},
        {"a sync-up is answered: the host has not configured the board", answering({{0, 0}})},
        {"the speaker stream is on: it is off: does the host play?",
         answering({{0, 1}, {1, 0}, {2, 1}})},
        {"the microphone stream is on: it is off: does the host record?",
         answering({{0, 1}, {1, 1}, {2, 0}})},
        {"the host's sound comes whole: left and right differ", playing(1, 2)},
        {"the host's sound comes whole: nothing but silence: does the host play?", playing(0, 0)},
        {"the host's sound comes whole: no frame came", streaming(false, true)},
        {"the app's sound is taken: no block is taken", streaming(true, false)},
    };
    for (Fault& fault : faults) {
        SCOPED_TRACE(fault.line);
        const auto verdict = [&] { return fault.tool.output().find(fault.line); };
        EXPECT_TRUE(waitFor([&] { return verdict() != std::string::npos; })) << fault.tool.output();
        fault.tool.send(SIGTERM);
        EXPECT_EQ(fault.tool.wait(), 1);
    }
}

}  // namespace
