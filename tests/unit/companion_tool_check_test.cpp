// SPDX-License-Identifier: Apache-2.0
// The companion tool's check of a daemon that is good or faulty.
#include <csignal>
#include <filesystem>
#include <string>
#include <uafd_companion.hpp>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/streaming_daemon.h"
#include "tests/unit/companion_tool.h"

namespace uafd {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::UnorderedElementsAre;

std::vector<std::string> namesIn(const std::string& path) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        names.push_back(entry.path().filename());
    }
    return names;
}

TEST_F(ToolTest, ChecksADaemonThatIsNotThere) {
    EXPECT_EQ(run({"check", "--wait", "0.1"}), 1);
    EXPECT_EQ(tool->output(),
              "ok    daemon and app may open each other's files\n"
              "FAIL  a sync-up is answered: no daemon runs, or it waits for FIFOs that it may not "
              "open\n"
              "1 passed, 1 failed, 8 not tried\n");
}

TEST_F(ToolTest, DoesNotPassACheckThatIsInterrupted) {
    start({"check"});
    ASSERT_TRUE(eventually([&] { return !tool->errors().empty(); }));
    tool->send(SIGINT);
    EXPECT_EQ(tool->wait(), 1);
    EXPECT_THAT(tool->output(), EndsWith("1 passed, 0 failed, 9 not tried, interrupted\n"));
}

TEST_F(ToolTest, LeavesAFolderWithoutADaemonAsItWas) {
    EXPECT_EQ(run({"check", "--wait", "0.1"}), 1);
    EXPECT_THAT(namesIn(folder.path()), ElementsAre());
    EXPECT_EQ(run({"status"}), 1);
    EXPECT_THAT(namesIn(folder.path()), ElementsAre());
}

// A daemon may wait for FIFOs that it has seen. It holds messages back while the socket of an app
// that was there is missing.
TEST_F(ToolTest, LeavesTheDaemonItsFifosAndAnAppItsSocket) {
    const StreamingDaemon streaming(folder, {});
    run({"check", "--wait", "2"});
    EXPECT_THAT(namesIn(folder.path()),
                UnorderedElementsAre("usbAudioFifoRx", "usbAudioFifoTx", "usbAudioUdsIpcTx"));
    uafd::Companion().open(UAFD_EVENTS, folder.path().c_str());
    EXPECT_EQ(run({"status"}), 0);
    EXPECT_THAT(namesIn(folder.path()), Contains("usbAudioUdsIpcRx"));
}

// A faulty daemon, and the verdict that the check must print.
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

StreamingOptions streaming(bool plays, bool records) {
    StreamingOptions options;
    options.plays = plays;
    options.records = records;
    return options;
}

// All checks run at the same time, as each takes a while.
TEST_F(ToolTest, FindsAFaultyDaemonOut) {
    const auto answering = StreamingOptions::answering;
    const auto playing = StreamingOptions::playing;
    Fault faults[] = {
        {"a sync-up is answered: no answer", answering({})},
        {"a sync-up is answered: the answer is incomplete", answering({{0, 1}})},
        {"a sync-up is answered: the host has not configured the board", answering({{0, 0}})},
        {"the speaker stream is on: it is off: does the host play?",
         answering({{0, 1}, {1, 0}, {2, 1}})},
        {"the microphone stream is on: it is off: does the host record?",
         answering({{0, 1}, {1, 1}, {2, 0}})},
        {"the host's sound arrives complete: left and right differ", playing(1, 2)},
        {"the host's sound arrives complete: nothing but silence: does the host play?",
         playing(0, 0)},
        {"the host's sound arrives complete: no frame arrived", streaming(false, true)},
        {"the app's sound is accepted: no block is accepted", streaming(true, false)},
    };
    for (Fault& fault : faults) {
        SCOPED_TRACE(fault.line);
        const auto verdict = [&] { return fault.tool.output().find(fault.line); };
        EXPECT_TRUE(eventually([&] { return verdict() != std::string::npos; }))
            << fault.tool.output();
        fault.tool.send(SIGTERM);
        EXPECT_EQ(fault.tool.wait(), 1);
    }
}

}  // namespace
}  // namespace uafd
