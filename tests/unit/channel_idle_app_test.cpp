// SPDX-License-Identifier: Apache-2.0
// The microphone's channel with its real threads, locks and FIFO, and an app that stops using that
// FIFO: neither the stop nor any event waits for the app.
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/channel_lifecycle.h"

namespace uafd {
namespace {

using fake_log::kChannelLog;
using fake_log::kSourceLog;
using ::testing::ElementsAre;
using ::testing::Pair;

// What the app does with the microphone's FIFO before the host switches its recording off.
struct IdleApp {
    const char* name;
    bool opens, writes, closes;
};

class ChannelIdleAppTest : public ChannelLifecycleTest,
                           public testing::WithParamInterface<IdleApp> {
  protected:
    // Switches on; the buffer thread then waits for an app that will do nothing more.
    void startAndWait() {
        ASSERT_EQ(0, source.intfUpdate(true));
        const auto [name, opens, writes, closes] = GetParam();
        if (opens) {
            app = fake_sys::real::open(sourceFifo.c_str(), O_WRONLY);
            ASSERT_TRUE(
                eventually([&] { return fake_log::count(kSourceLog.debug(openedLine)) == 1; }));
        }
        if (writes) {
            const std::vector<int16_t> block(960, 5);
            ASSERT_EQ(1920, write(app, block.data(), 1920));
            ASSERT_TRUE(
                eventually([&] { return fake_log::count(kSourceLog.debug(readLine)) == 1; }));
        }
        if (closes) {
            closeApp();
            ASSERT_TRUE(
                eventually([&] { return fake_log::count(kSourceLog.debug(closedLine)) == 1; }));
        }
        ASSERT_TRUE(fallsAsleep(openerTid));
    }
    void closeApp() {
        if (app >= 0) {
            close(app);
        }
        app = -1;
    }
    void TearDown() override {
        closeApp();
        ChannelLifecycleTest::TearDown();
    }

    const std::string openedLine = sourceFifo + " opened buffer size 4096\n";
    const std::string readLine = "buffer loopcnt 0, fifoRead 1920\n";
    const std::string closedLine = "closing " + sourceFifo + ", failed to read rc=0, expect 1920\n";
    int app = -1;
};

TEST_P(ChannelIdleAppTest, AStopDoesNotWaitForIt) {
    startAndWait();
    fake_log::clear();
    ASSERT_EQ(0, source.intfUpdate(false));
    ASSERT_TRUE(eventually([&] { return source.hasStopped(); }));
    EXPECT_EQ(0, fake_alsa::pcmsOpen());
    EXPECT_THAT(fake_ipc::messages(),
                ElementsAre(Pair(kSourceMessage, 1U), Pair(kSourceMessage, 0U)));
    for (const fake_log::Line& line : fake_log::lines()) {
        EXPECT_EQ(3, line.priority) << line;
        EXPECT_EQ(std::string::npos, line.text.find("closing /")) << line;
    }
    EXPECT_EQ(1, fake_log::count(kChannelLog.debug("intfUpdate to 0, current state 1\n")));
    EXPECT_EQ(0, fake_log::count(kChannelLog.debug("intfUpdate to 0, current state 2\n")));
}

// The stop holds the channel's lock, which every event of the channel needs.
TEST_P(ChannelIdleAppTest, EventsAreHandledWhileAStopIsUnderWay) {
    startAndWait();
    const AppReader reader(sinkFifo);
    ASSERT_EQ(0, source.intfUpdate(false));
    ASSERT_TRUE(eventually(
        [] { return fake_log::count(kSourceLog.debug("stopping buffer thread\n")) == 1; }));
    std::atomic<bool> handled{false};
    std::thread eventLoop([&] {
        source.setVolume(1, 4);
        sink.intfUpdate(true);
        source.intfUpdate(false);  // the cable is pulled: both off, the names unset
        sink.intfUpdate(false);
        source.setDevName(nullptr, nullptr);
        sink.setDevName(nullptr, nullptr);
        handled = true;
    });
    EXPECT_TRUE(eventually([&] { return handled.load(); }));
    // Only a defect leaves the event loop waiting here: then the app comes, so that the test ends.
    std::unique_ptr<AppWriter> rescue;
    if (!handled) {
        rescue = std::make_unique<AppWriter>(sourceFifo, 5);
    }
    eventLoop.join();
    EXPECT_TRUE(eventually([&] { return source.hasStopped() && sink.hasStopped(); }));
}

TEST_P(ChannelIdleAppTest, TheNextStreamPlaysWhatTheAppWritesThen) {
    const auto stop = [this] {
        source.intfUpdate(false);
        EXPECT_TRUE(eventually([&] { return source.hasStopped(); }));
        fake_log::clear();
    };
    for (int16_t round = 1; round <= 20; ++round) {
        startAndWait();
        stop();
        closeApp();
        {
            const AppWriter writer(sourceFifo, round);
            ASSERT_EQ(0, source.intfUpdate(true));
            ASSERT_TRUE(eventually([&] { return lastPlayed == round; }));
            stop();
        }
        // Reads the end of the file, so that the next round opens the FIFO again.
        ASSERT_EQ(0, source.intfUpdate(true));
        ASSERT_TRUE(eventually([&] { return fake_log::count(kSourceLog.debug(closedLine)) == 1; }));
        stop();
        openerTid = 0;
    }
    expectAlternatingMessages();
}

INSTANTIATE_TEST_SUITE_P(AnApp, ChannelIdleAppTest,
                         testing::Values(IdleApp{"ThatNeverCame", false, false, false},
                                         IdleApp{"ThatNeverWrites", true, false, false},
                                         IdleApp{"ThatWritesNoMore", true, true, false},
                                         IdleApp{"ThatHasGone", true, true, true}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace uafd
