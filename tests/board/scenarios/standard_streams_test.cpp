// SPDX-License-Identifier: Apache-2.0
// The daemon's standard streams: closed at its start, as a careless service manager leaves them,
// and a file as standard output, to which the search for the card writes.
#include <climits>
#include <cstdio>
#include <unistd.h>

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include "board/kit/host.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

using testing::ElementsAre;
using testing::IsEmpty;

class StandardStreams : public BoardCase {
  protected:
    // Starts the app, and the daemon without these streams.
    void startWithout(const std::vector<int>& closed) {
        app = std::make_unique<App>();
        daemon.start([&] {
            for (const int fd : closed) {
                close(fd);
            }
        });
        ASSERT_TRUE(hasThreads(kIdleThreads));
        ASSERT_TRUE(settle());
    }

    std::vector<std::string> standardStreams() const {
        std::vector<std::string> targets;
        for (const char* fd : {"0", "1", "2"}) {
            char target[PATH_MAX] = "";
            const std::string link = "/proc/" + std::to_string(daemon.pid()) + "/fd/" + fd;
            EXPECT_GT(readlink(link.c_str(), target, sizeof target - 1), 0) << link;
            targets.emplace_back(target);
        }
        return targets;
    }

    // Every frame that the app has heard since its start came from the host.
    void expectOnlyTheHostIsHeard() {
        EXPECT_EQ(app->heardFrames(), 0);
        host.command("flush speaker");
        const HostPlayer player(ramp);
        app->speak(ramp);
        bothOn();
        EXPECT_TRUE(hostHears());
        EXPECT_TRUE(waitFor([this] { return app->heardFrames() > kRate / 4; }));
        const Heard heard = app->takeHeard();
        EXPECT_EQ(heard.unequalFrames, 0);
        // The sound is silence until the host's player has begun.
        const size_t first = firstSound(heard.left);
        ASSERT_LT(first, heard.left.size());
        EXPECT_EQ(heard.left[first], 1);
        EXPECT_EQ(breaksIn(heard.left), 0);
        bothOff();
        EXPECT_TRUE(hasThreads(kIdleThreads));
    }
};

TEST_F(StandardStreams, StayWhatTheyAreWhenAllAreOpen) {
    start();
    const std::vector<std::string> streams = standardStreams();
    EXPECT_EQ(streams[1], daemon.stdoutPath);
    EXPECT_EQ(streams[2], daemon.logPath);
    expectOnlyTheHostIsHeard();
    EXPECT_EQ(findDamage(), "");
}

TEST_F(StandardStreams, AClosedInputIsOccupied) {
    startWithout({STDIN_FILENO});
    EXPECT_THAT(standardStreams(), ElementsAre("/dev/null", daemon.stdoutPath, daemon.logPath));
    expectOnlyTheHostIsHeard();
}

TEST_F(StandardStreams, AClosedOutputIsOccupied) {
    startWithout({STDOUT_FILENO});
    EXPECT_EQ(standardStreams()[1], "/dev/null");
    EXPECT_EQ(standardStreams()[2], daemon.logPath);
    expectOnlyTheHostIsHeard();
}

// Without this the first FIFO would get the descriptor to which the log is written.
TEST_F(StandardStreams, AClosedErrorIsOccupiedAndTheAppHearsNoLog) {
    startWithout({STDERR_FILENO});
    EXPECT_EQ(standardStreams()[1], daemon.stdoutPath);
    EXPECT_EQ(standardStreams()[2], "/dev/null");
    expectOnlyTheHostIsHeard();
    EXPECT_THAT(daemon.log(), IsEmpty());
}

TEST_F(StandardStreams, AllThreeAreOccupied) {
    startWithout({STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO});
    EXPECT_THAT(standardStreams(), ElementsAre("/dev/null", "/dev/null", "/dev/null"));
    expectOnlyTheHostIsHeard();
}

// The daemon may not open the board's own card for writing, which the search reports; the daemon
// goes on, for months.
TEST_F(StandardStreams, TheCardSearchsLinesReachAFileAtOnce) {
    constexpr char control[] = "/dev/snd/controlC0";
    ASSERT_EQ(chmod(control, 0400), 0);
    app = std::make_unique<App>();
    startDaemon([] { prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE); });
    EXPECT_EQ(chmod(control, 0600), 0);
    EXPECT_EQ(daemon.count("UAC Vexa is enabled, using hw:1"), 1);
    EXPECT_EQ(contents(daemon.stdoutPath), "control open (0): Permission denied\n");
    EXPECT_EQ(findDamage(), "");
}

}  // namespace
}  // namespace uafd
