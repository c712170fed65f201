// SPDX-License-Identifier: Apache-2.0
// What the channel base class does for its streams: messages about volume and mute, the conversion
// between channel counts, and the response to a failed wait.
#include <cerrno>
#include <climits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "channel/uaf_ch.h"
#include "tests/unit/channel_bench.h"

namespace uafd {
namespace {

using fake_log::kAlsaLog;
using fake_log::kChannelLog;
using fake_log::kTestLog;
using namespace channel_bench;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using Samples = std::vector<int16_t>;

class UafChStreamTest : public channel_bench::Test {
  protected:
    void openPcm() { ASSERT_EQ(0, snd_pcm_open(&channel.pcmHandle, kPcmName, kPlayback, 0)); }

    static constexpr snd_pcm_stream_t kPlayback = SND_PCM_STREAM_PLAYBACK;
};

// ---- Volume and mute ---------------------------------------------------------------------------

// Receivers ignore the upper half.
TEST_F(UafChStreamTest, AVolumeTravelsInTheLowHalf) {
    EXPECT_EQ(0, channel.setVolume(-1, 3));
    EXPECT_EQ(0, channel.setVolume(-32768, 4));
    EXPECT_EQ(0, channel.setVolume(0x1234, 3));
    EXPECT_THAT(fake_ipc::messages(),
                ElementsAre(Pair(3U, 0xFFFFU), Pair(4U, 0x8000U), Pair(3U, 0x1234U)));
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(
            kChannelLog.debug("setVolume volume=-1, sending: type=0x00000003, data=0x0000FFFF\n"),
            kChannelLog.debug(
                "setVolume volume=-32768, sending: type=0x00000004, data=0x00008000\n"),
            kChannelLog.debug(
                "setVolume volume=4660, sending: type=0x00000003, data=0x00001234\n")));
}

TEST_F(UafChStreamTest, AMuteTravelsAsOneOrZero) {
    EXPECT_EQ(0, channel.setMute(true, 5));
    EXPECT_EQ(0, channel.setMute(false, 6));
    EXPECT_THAT(fake_ipc::messages(), ElementsAre(Pair(5U, 1U), Pair(6U, 0U)));
    EXPECT_THAT(
        fake_log::lines(),
        ElementsAre(
            kChannelLog.debug("setMute mute=1, sending: type=0x00000005, data=0x00000001\n"),
            kChannelLog.debug("setMute mute=0, sending: type=0x00000006, data=0x00000000\n")));
}

// A stop in progress holds the lock, and the event loop must not wait for it here.
TEST_F(UafChStreamTest, VolumeAndMuteTouchNeitherStateNorLock) {
    channel.state = UAFCH_STOPPING;
    channel.stopDelayCnt = 2;
    journal.clear();
    channel.setVolume(1, 3);
    channel.setMute(true, 5);
    EXPECT_EQ(UAFCH_STOPPING, channel.state);
    EXPECT_EQ(2U, channel.stopDelayCnt);
    EXPECT_THAT(journal, ElementsAre("message 1", "message 1"));
}

// ---- Channel counts ----------------------------------------------------------------------------

TEST_F(UafChStreamTest, MonoBecomesStereoInPlace) {
    Samples samples{1, 2, 3, 4, 0, 0, 0, 0, 77};
    UafCh::adjCh(samples.data(), 1, 2, 4);
    EXPECT_THAT(samples, ElementsAre(1, 1, 2, 2, 3, 3, 4, 4, 77));
}

TEST_F(UafChStreamTest, StereoBecomesMonoByItsLeftSamples) {
    Samples samples{1, 9, 2, 9, 3, 9};
    UafCh::adjCh(samples.data(), 2, 1, 3);
    EXPECT_THAT(samples, ElementsAre(1, 2, 3, 9, 3, 9));
}

TEST_F(UafChStreamTest, NoFramesChangeNothing) {
    for (const int frames : {0, -1, INT_MIN + 16, INT_MIN}) {
        Samples samples{1, 2, 3, 4};
        UafCh::adjCh(samples.data(), 1, 2, frames);
        UafCh::adjCh(samples.data(), 2, 1, frames);
        EXPECT_THAT(samples, ElementsAre(1, 2, 3, 4));
    }
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(UafChStreamTest, EqualCountsChangeNothing) {
    Samples samples{1, 2, 3, 4, 5, 6};
    for (const int channels : {1, 2, 3, 0}) {
        UafCh::adjCh(samples.data(), channels, channels, 2);
    }
    EXPECT_THAT(samples, ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(UafChStreamTest, OtherCountsAreReportedAndChangeNothing) {
    Samples samples{1, 2, 3, 4, 5, 6};
    UafCh::adjCh(samples.data(), 2, 3, 2);
    UafCh::adjCh(samples.data(), 1, 3, 2);
    UafCh::adjCh(samples.data(), 0, 1, 0);
    EXPECT_THAT(samples, ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kChannelLog.error("unsupported: inCh=2, outCh=3\n"),
                            kChannelLog.error("unsupported: inCh=1, outCh=3\n"),
                            kChannelLog.error("unsupported: inCh=0, outCh=1\n")));
}

// ---- Waits and recovery ------------------------------------------------------------------------

TEST_F(UafChStreamTest, AStallIsReportedOnceAndCounted) {
    EXPECT_EQ(0, channel.missedWait(0, "UAFTAG"));
    EXPECT_EQ(0, channel.missedWait(0, "UAFTAG"));
    EXPECT_EQ(0, channel.missedWait(0, "UAFTAG"));
    EXPECT_EQ(3, channel.pcmStallCnt);
    EXPECT_EQ(0, threads.sleptNs);
    EXPECT_THAT(fake_log::lines(), ElementsAre(kTestLog.debug("timeout0, rc=0\n")));
}

// A host may send nothing for months.
TEST_F(UafChStreamTest, StallsAreCountedUpToTheGreatestNumber) {
    channel.pcmStallCnt = INT_MAX - 1;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, channel.missedWait(0, "UAFTAG"));
        EXPECT_EQ(INT_MAX, channel.pcmStallCnt);
    }
}

// A failed wait returns at once: without the pause the worker would spin.
TEST_F(UafChStreamTest, AFailedWaitTakesAsLongAsATimeout) {
    EXPECT_EQ(0, channel.missedWait(-ENODEV, "UAFTAG"));
    EXPECT_EQ(10000000, threads.sleptNs);
    EXPECT_EQ(0, channel.missedWait(-ENODEV, "UAFTAG"));
    EXPECT_EQ(20000000, threads.sleptNs);
    EXPECT_EQ(2, channel.pcmStallCnt);
    EXPECT_THAT(fake_log::lines(), ElementsAre(kTestLog.debug("timeout0, rc=-19\n")));
}

TEST_F(UafChStreamTest, AnXrunIsRecoveredAndNoStall) {
    openPcm();
    EXPECT_EQ(0, channel.missedWait(-EPIPE, "UAFTAG"));
    EXPECT_EQ(0, channel.missedWait(-ESTRPIPE, "UAFTAG"));
    EXPECT_EQ(0, channel.pcmStallCnt);
    EXPECT_EQ(0, threads.sleptNs);
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_resume"));
    EXPECT_EQ(2, fake_alsa::count("snd_pcm_prepare"));
    EXPECT_EQ(1, fake_log::count(kAlsaLog.debug("xrun_recovery: playback xrun, err -32")));
    EXPECT_EQ(1, fake_log::count(kAlsaLog.debug("xrun_recovery: playback xrun, err -86")));
}

TEST_F(UafChStreamTest, AnXrunLeavesTheCountOfStalls) {
    openPcm();
    channel.pcmStallCnt = 3;
    EXPECT_EQ(0, channel.missedWait(-EPIPE, "UAFTAG"));
    EXPECT_EQ(3, channel.pcmStallCnt);
}

TEST_F(UafChStreamTest, AFailedRecoveryIsReportedAndReturned) {
    openPcm();
    fake_alsa::answerAt("snd_pcm_prepare", 1, -ENODEV);
    EXPECT_EQ(-ENODEV, channel.missedWait(-EPIPE, "UAFTAG"));
    EXPECT_EQ(0, channel.pcmStallCnt);
    const std::vector<fake_log::Line> lines = fake_log::lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(kTestLog.error("ALSA xrun recovery failed (No such device)\n"),
              lines[lines.size() - 2]);
    EXPECT_EQ(kTestLog.error("rc=-19\n"), lines.back());
}

TEST_F(UafChStreamTest, RecoveryAloneReportsOneLine) {
    openPcm();
    fake_alsa::answerAt("snd_pcm_prepare", 1, -EIO);
    EXPECT_EQ(-EIO, channel.recoverPcm(-EPIPE, "UAFTAG"));
    EXPECT_EQ(kTestLog.error("ALSA xrun recovery failed (Input/output error)\n"),
              fake_log::lines().back());
    EXPECT_EQ(0, channel.recoverPcm(-EPIPE, "UAFTAG"));
}

}  // namespace
}  // namespace uafd
