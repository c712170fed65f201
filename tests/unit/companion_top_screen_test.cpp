// SPDX-License-Identifier: Apache-2.0
// The companion tool's top in a real terminal, tmux: what is on the screen, the keys, the size, the
// colours, and the terminal afterwards.
#include <csignal>
#include <cstdlib>
#include <regex>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/companion_tool.h"
#include "tests/unit/fake_system.h"

namespace uafd {
namespace {

using testing::HasSubstr;
using testing::Not;

class TopScreen : public ToolTest {
  protected:
    ~TopScreen() override { tmux({"kill-server"}); }

    // A shell in a terminal of 80 by 24, in the test's folder.
    void SetUp() override {
        ToolTest::SetUp();
        unsetenv("TMUX");
        unsetenv("NO_COLOR");
        folder.write("top", "echo $$ >pid; exec " TOOL_PROGRAM " top --interval 0.1 --directory " +
                                folder.path() + " --sysroot " + system.path() + " \"$@\"\n");
        tmux({"new-session", "-d", "-x", "80", "-y", "24", "-c", folder.path(),
              "bash --norc --noprofile"});
        ASSERT_TRUE(shows("[#$]$")) << screen();
        type("stty -a >before");
    }

    std::string tmux(std::vector<std::string> words) const {
        words.insert(words.begin(),
                     {"/usr/bin/tmux", "-S", folder.path() + "/tmux", "-f", "/dev/null"});
        ChildProcess process(words);
        EXPECT_EQ(process.wait(), 0) << words[5] << ": " << process.errors();
        return process.output();
    }
    void type(const std::string& line) const { tmux({"send-keys", line, "Enter"}); }
    void key(const std::string& name) const { tmux({"send-keys", name}); }
    std::string screen() const { return tmux({"capture-pane", "-p"}); }
    std::string colouredScreen() const { return tmux({"capture-pane", "-p", "-e"}); }
    // The cursor, the other screen, and the wrapping of lines: "1 0 1" in a shell.
    std::string modes() const {
        return tmux({"display-message", "-p", "#{cursor_flag} #{alternate_on} #{wrap_flag}"});
    }
    // Waits until the screen has a line with this. Each look takes some milliseconds.
    testing::AssertionResult shows(const std::string& line, bool isWanted = true) const {
        const std::regex wanted(line, std::regex::multiline);
        return eventually([&] { return std::regex_search(screen(), wanted) == isWanted; });
    }
    void startTop(const std::string& options = "") const {
        type("bash ./top " + options + "; echo ended $?");
        EXPECT_TRUE(shows("^q quits$")) << screen();
    }
    // Every case ends its top: a terminal that goes sends the program a SIGHUP and a SIGCONT, which
    // now and then freeze the leak sanitizer in mid-exit.
    void quit() const {
        key("q");
        EXPECT_TRUE(shows("^ended 0$")) << screen();
    }
    pid_t pid() const {
        return static_cast<pid_t>(strtol(contentsOf(file("pid")).c_str(), nullptr, 10));
    }
    // The shell has its terminal back as it was.
    void expectRestored(const std::string& end) const {
        EXPECT_TRUE(shows(end)) << screen();
        EXPECT_THAT(screen(), Not(HasSubstr("microphone")));
        EXPECT_EQ(modes(), "1 0 1\n");
        type("stty -a >after; cmp before after && echo equal $((40 + 2))");
        EXPECT_TRUE(shows("^equal 42$")) << screen();
    }

    const FakeSystem system;
};

TEST_F(TopScreen, FillsTheTerminalUntilTheKeyQ) {
    system.addProcess(4711, "uafd");
    system.runPcm("pcm0c", 240062, 1200, "1.5");
    startTop();
    const std::string shown = screen();
    EXPECT_THAT(shown, HasSubstr("\ndaemon    starting      pid 4711, "));
    EXPECT_THAT(shown, HasSubstr("\nwaiting in the card     25.0 ms |####    |          -\n"));
    EXPECT_EQ(modes(), "0 1 0\n");
    system.addProcess(4711, "uafd", 'T');
    EXPECT_TRUE(shows("^daemon    stopped "));
    key("q");
    expectRestored("^ended 0$");
}

TEST_F(TopScreen, FollowsTheSizeOfTheTerminal) {
    startTop();
    EXPECT_TRUE(shows("^uafd-companion top {43}[-0-9]+ \\d\\d:\\d\\d:\\d\\d$")) << screen();
    tmux({"resize-window", "-x", "120", "-y", "40"});
    EXPECT_TRUE(shows("^uafd-companion top {67}[-0-9]+ \\d\\d:\\d\\d:\\d\\d$")) << screen();
    tmux({"resize-window", "-x", "30", "-y", "5"});
    EXPECT_TRUE(shows("q quits", false));
    EXPECT_TRUE(shows("^usb       configured    card 1$")) << screen();
    EXPECT_THAT(screen(), testing::StartsWith("uafd-companion top"));
    tmux({"resize-window", "-x", "80", "-y", "24"});
    EXPECT_TRUE(shows("^q quits$"));
    quit();
}

TEST_F(TopScreen, HasColoursUnlessTheyAreUnwanted) {
    startTop();
    EXPECT_THAT(colouredScreen(), HasSubstr("\033[31mabsent"));
    quit();
    type("clear; export NO_COLOR=1");
    startTop();
    EXPECT_THAT(colouredScreen(), Not(HasSubstr("\033[")));
    quit();
}

TEST_F(TopScreen, RestoresTheTerminalAfterCtrlC) {
    startTop();
    key("C-c");
    expectRestored("^ended 0$");
}

TEST_F(TopScreen, RestoresTheTerminalAfterATermination) {
    startTop();
    kill(pid(), SIGTERM);
    expectRestored("^ended 0$");
}

TEST_F(TopScreen, RestoresTheTerminalAfterACrash) {
    startTop();
    kill(pid(), SIGSEGV);
    expectRestored("^ended 139$");
}

TEST_F(TopScreen, RestoresTheTerminalWhileItIsStopped) {
    startTop();
    key("C-z");
    expectRestored("Stopped");
    type("clear; fg");
    EXPECT_TRUE(shows("^q quits$"));
    EXPECT_EQ(modes(), "0 1 0\n");
    key("q");
    expectRestored("[#$]$");
}

}  // namespace
}  // namespace uafd
