// SPDX-License-Identifier: Apache-2.0
// The app stands still and goes on, and reads and writes as it likes: too slowly, too fast, in
// pieces of any size. Only the sound that cannot get through is lost, and afterwards all is well.
#include <algorithm>
#include <csignal>

#include "board/kit/app_process.h"
#include "board/kit/host.h"
#include "board/kit/mic_stream.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr int kPeriod = 240;
constexpr Ns kPeriodTime = 5 * kMs;

// ---- Stopped and continued ---------------------------------------------------------------------

class StoppedApp : public Scenario {
  protected:
    void SetUp() override {
        start();
        app.reset();
        process = std::make_unique<AppProcess>();
        player = std::make_unique<HostPlayer>(noise);
        bothOn();
        ASSERT_TRUE(soundFlows());
    }

    bool soundFlows() {
        const int64_t heard = process->heardSound();
        return waitFor([&] { return process->heardSound() > heard + kRate / 10; }) && hostHears();
    }
    void TearDown() override {
        process.reset();
        player.reset();
        app = std::make_unique<App>();
        Scenario::TearDown();
    }

    std::unique_ptr<AppProcess> process;
    std::unique_ptr<HostPlayer> player;
};

TEST_F(StoppedApp, HearsAndIsHeardAgainWhenItGoesOn) {
    for (const Ns time : {20 * kMs, 60 * kMs, 500 * kMs, 10 * kSecond}) {
        SCOPED_TRACE(time / kMs);
        process->freeze();
        sleepFor(time);
        process->thaw();
        EXPECT_TRUE(soundFlows());
    }
    EXPECT_EQ(daemon.count("UAF channel stopped. Current state is (#)"), 0);
}

// The messages wait in the app's socket, and in the daemon until there is room.
TEST_F(StoppedApp, GetsTheMessagesOfTheMeantime) {
    constexpr int volumes = 50;
    const int64_t messages = process->messages();
    process->freeze();
    for (int i = 0; i < volumes; ++i) {
        host.command("volume speaker " + std::to_string(i));
    }
    EXPECT_TRUE(settle());
    process->thaw();
    EXPECT_TRUE(waitFor([&] { return process->messages() == messages + volumes; }));
    EXPECT_TRUE(soundFlows());
}

// The speaker's channel waits in its FIFO; when it comes out it does what the host has asked
// meanwhile.
TEST_F(StoppedApp, FindsTheHostsStreamsOffWhenItGoesOn) {
    process->freeze();
    sleepFor(200 * kMs);
    bothOff();
    expectNobodyBusy();
    EXPECT_EQ(daemon.count("UAF channel stopped. Current state is (2)"), 1);
    process->thaw();
    EXPECT_TRUE(hasThreads(kIdleThreads));
    EXPECT_EQ(daemon.count("UAF channel stopped. Current state is (2)"), 2);
    bothOn();
    EXPECT_TRUE(soundFlows());
}

TEST_F(StoppedApp, MissesAnOffAndAnOnOfTheHosts) {
    process->freeze();
    sleepFor(200 * kMs);
    bothOff();
    sleepFor(200 * kMs);
    switchBoth(true);
    expectNobodyBusy();
    process->thaw();
    EXPECT_TRUE(soundFlows());
}

TEST_F(StoppedApp, IsKilled) {
    process->freeze();
    sleepFor(200 * kMs);
}

// ---- Slow and fast -----------------------------------------------------------------------------

class Pace : public Scenario {
  protected:
    void SetUp() override {
        start();
        xrunsBefore = xruns();
    }

    int64_t xrunsBefore = 0;
};

// Expects whole periods of the host's sound, with nothing or whole periods missing in between.
// Returns how many frames are missing.
int64_t expectWholePeriods(const Samples& heard) {
    int64_t missing = 0;
    for (size_t i = 1; i < heard.size(); ++i) {
        const auto step = static_cast<uint16_t>(heard[i] - heard[i - 1]);
        if (step != 1) {
            EXPECT_EQ(i % kPeriod, 0U) << "a gap within a period";
            EXPECT_EQ((step - 1) % kPeriod, 0) << "a gap of less than a period";
            missing += step - 1;
        }
    }
    return missing;
}

TEST_F(Pace, ASlowReaderLosesWholePeriodsAndIsNeverFarBehind) {
    const HostPlayer player(ramp);
    ASSERT_TRUE(player.fill());
    host.command("speaker on");
    ASSERT_TRUE(waitFor([&] { return app->heardFrames() > kRate / 2; }));
    Samples heard = app->takeHeard().left;
    EXPECT_EQ(expectWholePeriods(heard), 0);

    app->listenSlowly(kPeriodTime * 21 / 20);
    sleepFor(5 * kSecond);
    const Samples slow = app->takeHeard().left;
    heard.insert(heard.end(), slow.begin(), slow.end());
    const int64_t missing = expectWholePeriods(heard);
    EXPECT_NEAR(static_cast<double>(missing), 5.0 * kRate / 21, kRate / 20);
    EXPECT_GE(daemon.count("too much samples in the buffer, drop samples. (avail=#)"), 5);
    EXPECT_EQ(xruns(), xrunsBefore);
    // Three periods may wait in the card's ring and two in the pipe, and more until the daemon's
    // next check.
    const int64_t behind = host.counter("speaker.frames") - host.counter("speaker.first_frames") -
                           static_cast<int64_t>(heard.size()) - missing;
    EXPECT_LT(behind, kRate / 10);
    printf("slow reader: %ld frames missing, %ld behind, %d drops\n", static_cast<long>(missing),
           static_cast<long>(behind),
           daemon.count("too much samples in the buffer, drop samples. (avail=#)"));

    app->listenSlowly(0);
    sleepFor(kSecond);
    app->takeHeard();
    const Heard after = [&] {
        sleepFor(kSecond);
        return app->takeHeard();
    }();
    EXPECT_EQ(expectWholePeriods(after.left), 0);
    host.command("speaker off");
}

// The app is so slow that the card's ring overruns: the stream restarts again and again, and the
// daemon stays whole.
TEST_F(Pace, AReaderOfAQuarterOfTheSpeedOverrunsTheCardAndRecovers) {
    const HostPlayer player(ramp);
    ASSERT_TRUE(player.fill());
    host.command("speaker on");
    ASSERT_TRUE(waitFor([&] { return app->heardFrames() > kRate / 2; }));
    app->listenSlowly(kPeriodTime * 4);
    sleepFor(3 * kSecond);
    app->listenSlowly(0);
    sleepFor(kSecond);
    app->takeHeard();
    sleepFor(kSecond);
    EXPECT_EQ(expectWholePeriods(app->takeHeard().left), 0);
    host.command("speaker off");
}

// The frame buffer runs dry again and again, but less than eleven times a second: silence, then a
// new start; every sample that came is heard.
TEST_F(Pace, ASlowWriterIsHeardInPieces) {
    MicStream mic(this, noise);
    sleepFor(kSecond);
    mic.observe();
    EXPECT_EQ(mic.explained().count(FrameKind::kStarved), 0);
    app->speakSlower(3);
    sleepFor(5 * kSecond);
    mic.observe();
    EXPECT_EQ(mic.explained().count(FrameKind::kUnexplained), 0);
    EXPECT_GE(mic.explained().count(FrameKind::kStarved), 5);
    EXPECT_EQ(daemon.count("increased ssrs queue depth"), 0);
    EXPECT_GE(daemon.count("buffer loopcnt #, Depth #, Underruns #, Overruns 0"), 3);
    app->speakSlower(0);
    sleepFor(3 * kSecond);
    mic.off();
    EXPECT_EQ(mic.explained().count(FrameKind::kUnexplained), 0);
}

// The frame buffer runs dry so often that it is enlarged, once; the next stream starts with the
// small one.
TEST_F(Pace, AVerySlowWriterGetsTheLargeBufferForTheRestOfTheStream) {
    MicStream mic(this, noise);
    sleepFor(kSecond);
    mic.observe();
    app->speakSlower(40);
    sleepFor(5 * kSecond);
    mic.observe();
    EXPECT_EQ(daemon.count("increased ssrs queue depth"), 1);
    app->speakSlower(0);
    sleepFor(3 * kSecond);
    mic.off();
    // What was queued when the buffer was enlarged is discarded, down to a frame.
    EXPECT_LE(mic.explained().count(FrameKind::kUnexplained), 2);
    EXPECT_EQ(findDamage(), "");
    EXPECT_EQ(daemon.count("increased ssrs queue depth"), 1);
}

// A block that finds the buffer full is dropped whole.
TEST_F(Pace, AFastWriterLosesWholeBlocks) {
    MicStream mic(this, noise);
    sleepFor(kSecond);
    app->speakSlower(-20);
    sleepFor(2 * kSecond);
    app->speakSlower(0);
    sleepFor(kSecond);
    mic.observe();
    EXPECT_GT(mic.explained().count(FrameKind::kUnexplained), 10);
    const int64_t lost = mic.explained().count(FrameKind::kUnexplained);
    sleepFor(2 * kSecond);
    mic.off();
    EXPECT_EQ(mic.explained().count(FrameKind::kUnexplained), lost);
    EXPECT_EQ(xruns(), xrunsBefore);
}

// ---- Pieces of any size ------------------------------------------------------------------------

class ChunkSize : public Scenario, public testing::WithParamInterface<size_t> {
  protected:
    static constexpr Ns kEnough = kSecond / 10;
    static constexpr int64_t kFrame = MicRecording::kFrame;

    // Whether the sound that the host records from now on is the app's noise in every frame.
    bool isNoise() {
        host.takeRecording();
        sleepFor(kEnough);
        Samples recorded = host.takeRecording();
        const auto values = host.counters();
        const int64_t first = values.at("mic.frames") - values.at("mic.queued") -
                              values.at("mic.start_frames") - static_cast<int64_t>(recorded.size());
        recorded.erase(recorded.begin(), recorded.begin() + (kFrame - first % kFrame) % kFrame);
        MicRecording explained(noise);
        explained.add(recorded);
        return explained.count(FrameKind::kUnexplained) == 1;  // where the search starts
    }
};

// A write that is not a whole block spoils the sound: each read counts as a block, filled up with
// bytes of the one before. The next app is heard as if nothing had happened.
TEST_P(ChunkSize, SpoilsTheSoundForAsLongAsItLasts) {
    constexpr size_t block = 1920;
    const size_t chunkBytes = GetParam();
    start();
    app.reset();
    AppOptions odd;
    odd.chunkBytes = chunkBytes;
    // A tiny write costs the daemon as much as a whole block, so tiny ones come no more often than
    // blocks.
    odd.slowdownPercent = chunkBytes < 100 ? static_cast<int>(100 * block / chunkBytes) : 0;
    app = std::make_unique<App>(odd);
    app->speak(noise);
    host.command("mic on");
    EXPECT_TRUE(hostHears());
    expectNobodyBusy();
    EXPECT_EQ(isNoise(), chunkBytes == block);
    EXPECT_EQ(daemon.count("UAF channel stopped. Current state is (#)"), 0);

    app.reset();  // so that only the next one writes
    app = std::make_unique<App>();
    app->speak(noise);
    sleepFor(500 * kMs);
    EXPECT_TRUE(isNoise());
    host.command("mic off");
}

INSTANTIATE_TEST_SUITE_P(Of, ChunkSize, testing::Values(1, 3, 959, 960, 961, 1919, 1920, 4096),
                         [](const auto& info) { return std::to_string(info.param) + "Bytes"; });

}  // namespace
}  // namespace uafd
