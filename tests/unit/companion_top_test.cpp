// SPDX-License-Identifier: Apache-2.0
// What the companion tool's top finds out about a system, and how it prints it.
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <future>
#include <regex>
#include <string>
#include <uafd_companion.hpp>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/streaming_daemon.h"
#include "tests/unit/companion_tool.h"
#include "tests/unit/fake_system.h"

namespace uafd {
namespace {

using testing::HasSubstr;
using testing::Not;

class TopTest : public ToolTest {
  protected:
    // One look at the fake system, as text or with "--json".
    std::string look(std::vector<std::string> more = {}) {
        more.insert(more.begin(),
                    {"top", "--once", "--interval", "0.1", "--sysroot", system.path()});
        start(more, [this] { useService(); });
        EXPECT_EQ(tool->wait(), 0);
        EXPECT_EQ(tool->errors(), "");
        return tool->output();
    }
    void useService() const {
        setenv("PATH", (system.programs() + ":" + getenv("PATH")).c_str(), 1);
    }
    void makeFifos() const {
        ASSERT_EQ(mkfifo(daemon.path("FifoRx").c_str(), 0600), 0);
        ASSERT_EQ(mkfifo(daemon.path("FifoTx").c_str(), 0600), 0);
    }
    // The daemon moves sound both ways, for an app that does without the library.
    void stream() {
        makeFifos();
        daemon.bindSocket();
        system.addProcess(1, "init");
        system.addProcess(4711, "uafd");
        system.addProcess(4712, "app");
        system.openFile(4711, 7, daemon.path("FifoRx"), "0100001");
        system.openFile(4711, 8, daemon.path("FifoTx"), "0100000");
        system.openFile(4712, 3, daemon.path("FifoRx"), "02");
        system.openFile(4712, 4, daemon.path("FifoTx"), "01");
        system.runPcm("pcm0c", 240062, 62, "1.5");
        system.runPcm("pcm0p", 480000, 720, "2.5");
        system.addService("ActiveState=active\\nNRestarts=2\\nLoadState=loaded\\n");
    }

    // Waits until the tool has printed this. `meanwhile` is called before each look.
    testing::AssertionResult prints(
        const std::string& text, const std::function<void()>& meanwhile = [] {}) {
        return eventually([&] {
            meanwhile();
            return std::regex_search(tool->output(), std::regex(text));
        });
    }

    const FakeSystem system;
};

// The time is replaced by '@'.
std::string timeless(const std::string& text) {
    return std::regex_replace(text, std::regex(R"(\d{4}-\d\d-\d\d[ T]\d\d:\d\d:\d\d(\.\d{3}Z)?)"),
                              "@");
}

TEST_F(TopTest, ShowsADaemonThatStreams) {
    stream();
    EXPECT_EQ(timeless(look()),
              "uafd-companion top                                           @\n"
              "\n"
              "daemon    running       pid 4711, up 1 d 2:02:14, 6 threads, 0.0 % cpu, 3.1 MiB\n"
              "service   active        2 restarts\n"
              "usb       configured    card 1\n"
              "messages  not taken     by an app\n"
              "\n"
              "                        speaker, to the app         microphone, to the host\n"
              "stream                  on                          on\n"
              "card                    running                     running\n"
              "format                  48000 Hz, 1 ch, S16_LE      48000 Hz, 1 ch, S16_LE\n"
              "frames                  240062                      480000\n"
              "frames a second         0                           0\n"
              "waiting in the card      1.3 ms |        |          15.0 ms |##      |\n"
              "restarts                0                           0\n"
              "FIFO, daemon's end      open                        open\n"
              "FIFO, app's end         app (4712)                  app (4712)\n"
              "\n");
}

TEST_F(TopTest, PrintsADaemonThatStreamsAsJson) {
    stream();
    const std::string shape =
        R"("format":"S16_LE","rate":48000,"channels":1,"period_frames":240,"buffer_frames":2400,)";
    const std::string rest =
        R"("restarts":0,"fifo":1,"daemon_end_open":1,"app":1,"app_pid":4712,"app_name":"app",)"
        R"("volume":null,"mute":null,"peak_db":null,"rms_db":null,)"
        R"("blocks_taken":null,"blocks_lost":null})";
    EXPECT_EQ(timeless(look({"--json"})),
              R"({"time":"@","daemon":"running","pid":4711,"process_state":"S","threads":6,)"
              R"("cpu_percent":0.0,"memory_kib":3160,"uptime_s":93734.0,"service":"active",)"
              R"("service_restarts":2,"usb_state":1,"card":1,"messages_taken":0,)"
              R"("speaker":{"on":1,"card_state":"RUNNING",)" +
                  shape + R"("frames":240062,"frames_per_second":0.0,"waiting_frames":62,)" + rest +
                  R"(,"mic":{"on":1,"card_state":"RUNNING",)" + shape +
                  R"("frames":480000,"frames_per_second":0.0,"waiting_frames":720,)" + rest +
                  "}\n");
}

TEST_F(TopTest, ShowsASystemWithoutADaemon) {
    system.removeCard();
    system.setGadget("DISCONNECTED");
    system.addProcess(4711, "uafd2");
    EXPECT_EQ(timeless(look()),
              "uafd-companion top                                           @\n"
              "\n"
              "daemon    absent\n"
              "service   -\n"
              "usb       disconnected  no gadget card\n"
              "messages  not taken     by an app\n"
              "\n"
              "                        speaker, to the app         microphone, to the host\n"
              "stream                  -                           -\n"
              "card                    -                           -\n"
              "format                  -                           -\n"
              "frames                  -                           -\n"
              "frames a second         -                           -\n"
              "waiting in the card     -                           -\n"
              "restarts                0                           0\n"
              "FIFO, daemon's end      no FIFO                     no FIFO\n"
              "FIFO, app's end         nobody                      nobody\n"
              "\n");
    EXPECT_THAT(look({"--json"}),
                HasSubstr(R"("daemon":"absent","pid":null,"process_state":null,"threads":null,)"));
}

TEST_F(TopTest, TellsADaemonThatStartsFromOneThatIsStopped) {
    system.addProcess(4711, "uafd");
    EXPECT_THAT(look({"--json"}), HasSubstr(R"("daemon":"starting","pid":4711,)"));
    daemon.bindSocket();
    EXPECT_THAT(look({"--json"}), HasSubstr(R"("daemon":"running","pid":4711,)"));
    system.addProcess(4711, "uafd", 'T');
    EXPECT_THAT(look({"--json"}),
                HasSubstr(R"("daemon":"stopped","pid":4711,"process_state":"T",)"));
}

TEST_F(TopTest, ShowsAServiceThatSystemdRestarts) {
    system.addService("LoadState=loaded\\nActiveState=activating\\nNRestarts=7\\n");
    EXPECT_THAT(look(), HasSubstr("service   activating    7 restarts\n"));
    system.addService("LoadState=not-found\\nActiveState=inactive\\nNRestarts=0\\n");
    EXPECT_THAT(look(), HasSubstr("service   -\n"));
}

TEST_F(TopTest, ShowsAnXrunAndASoundThatNobodyReads) {
    makeFifos();
    system.setPcmState("pcm0c", "XRUN");
    const std::string output = look();
    EXPECT_THAT(output, HasSubstr("card                    xrun                        closed\n"));
    EXPECT_THAT(output, HasSubstr("FIFO, app's end         nobody                      nobody\n"));
}

// A name could otherwise control the terminal.
TEST_F(TopTest, ShowsOnlyPrintableNames) {
    makeFifos();
    system.addProcess(4712, "a\033[2J\"\xff");
    system.openFile(4712, 3, daemon.path("FifoRx"), "02");
    EXPECT_THAT(look(), HasSubstr("FIFO, app's end         a?[2J\"? (4712) "));
    EXPECT_THAT(look({"--json"}), HasSubstr(R"("app_name":"a?[2J\"?",)"));
}

// An app of another user, whose descriptors are hidden, is known by its lock.
TEST_F(TopTest, FindsTheAppByItsLockInTheRealSystem) {
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    uafd::Companion app;
    ASSERT_EQ(app.open(UAFD_SPEAKER, folder.path().c_str()), 0);
    start({"top", "--once", "--json", "--interval", "0.1"}, [] {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) {
            _exit(126);
        }
    });
    EXPECT_EQ(tool->wait(), 0);
    EXPECT_THAT(tool->output(),
                HasSubstr(R"("app":1,"app_pid":)" + std::to_string(getpid()) + R"(,"app_name":)"));
}

TEST_F(TopTest, DisturbsNobody) {
    daemon.bindSocket();
    uafd::Companion app;
    ASSERT_EQ(app.open(UAFD_ALL, folder.path().c_str()), 0);
    daemon.messages();
    start({"top", "--once", "--json", "--interval", "0.1"});
    EXPECT_EQ(tool->wait(), 0);
    EXPECT_THAT(tool->output(), HasSubstr("\"messages_taken\":1,"));
    EXPECT_THAT(daemon.messages(), testing::IsEmpty());
    // A FIFO without an app stays so: a daemon that waits in its open goes on waiting.
    app.close();
    const auto beginOpening = [this](const char* name, int access) {
        return std::async(std::launch::async, [path = daemon.path(name), access] {
            return ::open(path.c_str(), access | O_CLOEXEC);
        });
    };
    std::future<int> openings[] = {beginOpening("FifoRx", O_WRONLY),
                                   beginOpening("FifoTx", O_RDONLY)};
    start({"top", "--once", "--interval", "0.3"});
    EXPECT_EQ(tool->wait(), 0);
    for (const auto& opening : openings) {
        EXPECT_EQ(opening.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    }
    EXPECT_FALSE(app.open(UAFD_ALL, folder.path().c_str()));
    for (auto& opening : openings) {
        close(opening.get());
    }
}

TEST_F(TopTest, CountsFramesASecondAndRestarts) {
    system.runPcm("pcm0c", 1000, 0, "1.5");
    start({"top", "--json", "--interval", "0.1", "--sysroot", system.path()});
    int moved = 1000;
    EXPECT_TRUE(prints(R"("frames_per_second":[1-9])",
                       [&] { system.runPcm("pcm0c", moved += 480, 0, "1.5"); }));
    EXPECT_THAT(tool->output(), Not(HasSubstr("\"restarts\":1")));
    system.runPcm("pcm0c", 0, 0, "9.5");
    EXPECT_TRUE(prints(R"("frames_per_second":null,"waiting_frames":0,"restarts":1)"));
    tool->send(SIGTERM);
    tool->wait();
}

// ---- In the app's place ------------------------------------------------------------------------

TEST_F(TopTest, MetersInTheAppsPlace) {
    StreamingOptions options;
    options.answer = {{0, 1}, {1, 1}, {2, 1}, {3, static_cast<uint16_t>(-1280)}, {5, 1}};
    options.left = options.right = 3277;  // 20 dB below full scale
    const StreamingDaemon streaming(folder, options);
    start({"top", "--take", "--json", "--interval", "0.1", "--sysroot", system.path()});
    EXPECT_TRUE(prints(R"("volume":-1280,"mute":1,"peak_db":-20\.0,"rms_db":-20\.0,)"));
    EXPECT_TRUE(prints(R"("blocks_taken":[1-9])"));
    tool->send(SIGTERM);
    EXPECT_EQ(tool->wait(), 0);
    const std::string text = look({"--take"});
    EXPECT_THAT(text, HasSubstr("level                   -20.0 dB |#####   |         -\n"));
    EXPECT_THAT(text, HasSubstr("volume                  -1280, muted                -\n"));
}

TEST_F(TopTest, LeavesAnAppItsPlace) {
    uafd::Companion app;
    ASSERT_EQ(app.open(UAFD_ALL, folder.path().c_str()), 0);
    EXPECT_EQ(run({"top", "--take", "--once"}), 1);
    EXPECT_EQ(tool->errors(), "uafd-companion: opening: another app has the speaker\n");
}

}  // namespace
}  // namespace uafd
