// SPDX-License-Identifier: Apache-2.0
// What becomes of a FIFO's name: deleted under an open FIFO, or in its place something that is
// none. The sound may suffer; the daemon does not, and a FIFO that is there again is used by the
// next stream.
#include <unistd.h>

#include <sys/stat.h>

#include "board/kit/host_player.h"
#include "tests/board/scenarios/scenario.h"

namespace uafd {
namespace {

using board::App;
using board::kFifoRx;
using board::kMs;
using board::kSecond;

class FifoName : public Scenario, public testing::WithParamInterface<const char*> {
  protected:
    static bool isRx() { return GetParam() == std::string(kFifoRx); }

    // A file with something in it where the FIFO was.
    static void putAFile() {
        unlink(GetParam());
        board::put(GetParam(), std::string(10000, 'x'));
    }
    // What was in the FIFO's place goes, and an app that makes its FIFOs comes.
    void bringAppBack() {
        remove(GetParam());
        app = std::make_unique<App>();
    }
};

TEST_P(FifoName, IsDeletedUnderAnOpenFifoWhichGoesOn) {
    start();
    const board::HostPlayer player(board::noise);
    app->speak(board::noise);
    bothOn();
    ASSERT_TRUE(hostHears());
    unlink(GetParam());
    EXPECT_TRUE(hostHears());
    const int64_t heard = app->heardFrames();
    EXPECT_TRUE(board::waitFor([&] { return app->heardFrames() > heard + board::kRate; }));
    EXPECT_EQ(daemon.count(std::string("failed to open ") + GetParam()), 0);

    bothOff();
    ASSERT_TRUE(hasThreads(board::kIdleThreads));
    bringAppBack();
    EXPECT_EQ(findDamage(), "");
}

// The sound goes into the file, or comes out of it for as long as it has any.
TEST_P(FifoName, BecomesAFileWhileBothChannelsRun) {
    start();
    bothOn();
    board::sleepFor(300 * kMs);
    putAFile();
    app.reset();
    ASSERT_TRUE(daemon.waitForLog(std::string(GetParam()) + " opened buffer size -1"));
    expectNobodyBusy();
    // The host's events are handled meanwhile.
    bothOff();
    EXPECT_TRUE(settle());
    bringAppBack();
    EXPECT_EQ(findDamage(), "");
}

TEST_P(FifoName, IsAFileWhenBothChannelsStart) {
    start();
    app.reset();
    putAFile();
    app = std::make_unique<App>();  // of the other FIFO
    host.command("speaker on");
    host.command("mic on");
    ASSERT_TRUE(daemon.waitForLog(std::string(GetParam()) + " opened buffer size -1"));
    expectNobodyBusy();
    bringAppBack();
    EXPECT_EQ(findDamage(), "");
}

TEST_P(FifoName, IsAFolderWhenBothChannelsStart) {
    start();
    app.reset();
    unlink(GetParam());
    mkdir(GetParam(), 0755);
    host.command("speaker on");
    host.command("mic on");
    expectNobodyBusy();
    const std::string refusal =
        isRx() ? std::string("failed to open ") + kFifoRx
               : std::string("closing ") + GetParam() + ", failed to read rc=-1, expect 1920";
    EXPECT_GE(daemon.count(refusal), 1);
    bringAppBack();
    EXPECT_EQ(findDamage(), "");
}

TEST_P(FifoName, IsAFileWhenTheDaemonStarts) {
    start();
    daemon.stop();
    app.reset();
    putAFile();
    app = std::make_unique<App>();
    startDaemon();
    bringAppBack();
    EXPECT_EQ(findDamage(), "");
}

INSTANTIATE_TEST_SUITE_P(Each, FifoName, testing::Values(board::kFifoRx, board::kFifoTx),
                         [](const auto& info) {
                             return info.param == board::kFifoRx ? "Rx" : "Tx";
                         });

}  // namespace
}  // namespace uafd
