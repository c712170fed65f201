// SPDX-License-Identifier: Apache-2.0
// What happens to a FIFO's name: it is deleted while the FIFO is open, or something that is no FIFO
// takes its place. The sound may suffer, the daemon does not, and the next stream uses a FIFO that
// is there again.
#include <unistd.h>

#include <sys/stat.h>

#include "board/kit/host.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

class FifoName : public Scenario, public testing::WithParamInterface<const char*> {
  protected:
    static bool isRx() { return GetParam() == std::string(kFifoRx); }

    // Puts a file with contents in the FIFO's place.
    static void putAFile() {
        unlink(GetParam());
        put(GetParam(), std::string(10000, 'x'));
    }
    // Clears the FIFO's place and starts an app that makes its FIFOs.
    void bringAppBack() {
        remove(GetParam());
        app = std::make_unique<App>();
    }
};

TEST_P(FifoName, IsDeletedUnderAnOpenFifoWhichGoesOn) {
    start();
    const HostPlayer player(noise);
    app->speak(noise);
    bothOn();
    ASSERT_TRUE(hostHears());
    unlink(GetParam());
    EXPECT_TRUE(hostHears());
    const int64_t heard = app->heardFrames();
    EXPECT_TRUE(waitFor([&] { return app->heardFrames() > heard + kRate; }));
    EXPECT_EQ(daemon.count(std::string("failed to open ") + GetParam()), 0);

    bothOff();
    ASSERT_TRUE(hasThreads(kIdleThreads));
    bringAppBack();
}

// The speaker's sound goes into the file; the microphone's comes from it, up to its end.
TEST_P(FifoName, BecomesAFileWhileBothChannelsRun) {
    start();
    bothOn();
    sleepFor(300 * kMs);
    putAFile();
    app.reset();
    ASSERT_TRUE(daemon.waitForLog(std::string(GetParam()) + " opened buffer size -1"));
    expectNobodyBusy();
    // Meanwhile the host's events are handled.
    bothOff();
    EXPECT_TRUE(settle());
    bringAppBack();
}

TEST_P(FifoName, IsAFileWhenBothChannelsStart) {
    start();
    app.reset();
    putAFile();
    app = std::make_unique<App>();  // makes the other FIFO
    switchBoth(true);
    ASSERT_TRUE(daemon.waitForLog(std::string(GetParam()) + " opened buffer size -1"));
    expectNobodyBusy();
    bringAppBack();
}

TEST_P(FifoName, IsAFolderWhenBothChannelsStart) {
    start();
    app.reset();
    unlink(GetParam());
    mkdir(GetParam(), 0755);
    switchBoth(true);
    expectNobodyBusy();
    const std::string refusal =
        isRx() ? std::string("failed to open ") + kFifoRx
               : std::string("closing ") + GetParam() + ", failed to read rc=-1, expect 1920";
    EXPECT_GE(daemon.count(refusal), 1);
    bringAppBack();
}

TEST_P(FifoName, IsAFileWhenTheDaemonStarts) {
    start();
    daemon.stop();
    app.reset();
    putAFile();
    app = std::make_unique<App>();
    startDaemon();
    bringAppBack();
}

INSTANTIATE_TEST_SUITE_P(Each, FifoName, testing::Values(kFifoRx, kFifoTx),
                         [](const auto& info) { return info.param == kFifoRx ? "Rx" : "Tx"; });

}  // namespace
}  // namespace uafd
