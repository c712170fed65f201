// SPDX-License-Identifier: Apache-2.0
#include "alsa/xrun_recovery.h"

#include <cerrno>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/fake_alsa.h"
#include "tests/support/fake_log.h"

namespace uafd {
namespace {

using fake_log::kAlsaLog;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

class XrunRecoveryTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        fake_sys::hooks().sleep = [this](unsigned seconds) {
            sleeps.push_back(seconds);
            return 0;
        };
    }
    static snd_pcm_t* opened(snd_pcm_stream_t stream) {
        snd_pcm_t* pcm = nullptr;
        snd_pcm_open(&pcm, "hw:1", stream, 0);
        fake_alsa::clearCalls();
        return pcm;
    }
    static snd_pcm_t* capture() { return opened(SND_PCM_STREAM_CAPTURE); }
    static snd_pcm_t* playback() { return opened(SND_PCM_STREAM_PLAYBACK); }
    static snd_pcm_t* suspended() {
        snd_pcm_t* const pcm = capture();
        fake_alsa::setState(pcm, SND_PCM_STATE_SUSPENDED);
        return pcm;
    }

    // The log must be the two lines with which every recovery begins, and then these texts, at
    // debug level.
    static void expectLog(const char* opening, const std::vector<std::string>& texts) {
        std::vector<fake_log::Line> expected{kAlsaLog.debug("stream recovery from ..."),
                                             kAlsaLog.debug(opening)};
        for (const std::string& text : texts) {
            expected.push_back(kAlsaLog.debug(text));
        }
        EXPECT_THAT(fake_log::lines(), ElementsAreArray(expected));
    }

    std::vector<unsigned> sleeps;
};

constexpr char kCaptureSuspend[] = "xrun_recovery: capture xrun, err -86";

// ---- Xrun --------------------------------------------------------------------------------------

TEST_F(XrunRecoveryTest, OverrunIsPrepared) {
    EXPECT_EQ(0, xrun_recovery(capture(), -EPIPE));
    expectLog("xrun_recovery: capture xrun, err -32", {"overrun...", "ready \n"});
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_prepare"));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_resume"));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_start"));
    EXPECT_EQ(2, fake_alsa::count("snd_pcm_stream"));  // once for each of the two lines
}

TEST_F(XrunRecoveryTest, AnyDirectionButPlaybackIsACapture) {
    fake_alsa::answerAlways("snd_pcm_stream", 2);
    EXPECT_EQ(0, xrun_recovery(capture(), -EPIPE));
    expectLog("xrun_recovery: capture xrun, err -32", {"overrun...", "ready \n"});
}

TEST_F(XrunRecoveryTest, UnderrunIsPrepared) {
    EXPECT_EQ(0, xrun_recovery(playback(), -EPIPE));
    expectLog("xrun_recovery: playback xrun, err -32", {"underrun...", "ready \n"});
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_prepare"));
}

TEST_F(XrunRecoveryTest, FailedPrepareOfAPlaybackReturnsItsCode) {
    fake_alsa::answerAlways("snd_pcm_prepare", -ENODEV);
    EXPECT_EQ(-19, xrun_recovery(playback(), -EPIPE));
    expectLog("xrun_recovery: playback xrun, err -32",
              {"underrun...", "Can't recovery from underrun, prepare failed: No such device\n"});
}

TEST_F(XrunRecoveryTest, FailedPrepareOfACaptureSaysUnderrunToo) {
    fake_alsa::answerAlways("snd_pcm_prepare", -EIO);
    EXPECT_EQ(-EIO, xrun_recovery(capture(), -EPIPE));
    expectLog("xrun_recovery: capture xrun, err -32",
              {"overrun...", "Can't recovery from underrun, prepare failed: Input/output error\n"});
}

TEST_F(XrunRecoveryTest, PositivePrepareIsSuccess) {
    fake_alsa::answerAlways("snd_pcm_prepare", 1);
    EXPECT_EQ(0, xrun_recovery(capture(), -EPIPE));
}

// ---- Suspend -----------------------------------------------------------------------------------

TEST_F(XrunRecoveryTest, ResumedAtOnce) {
    EXPECT_EQ(0, xrun_recovery(suspended(), -ESTRPIPE));
    expectLog(kCaptureSuspend, {"suspend...", "ready \n"});
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_resume"));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_prepare"));
    EXPECT_THAT(sleeps, IsEmpty());
}

TEST_F(XrunRecoveryTest, PositiveResumeIsSuccess) {
    fake_alsa::answerAlways("snd_pcm_resume", 1);
    EXPECT_EQ(0, xrun_recovery(suspended(), -ESTRPIPE));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_prepare"));
}

TEST_F(XrunRecoveryTest, SuspendOfAPlaybackIsNamed) {
    fake_alsa::answerAlways("snd_pcm_resume", 0);
    EXPECT_EQ(0, xrun_recovery(playback(), -ESTRPIPE));
    expectLog("xrun_recovery: playback xrun, err -86", {"suspend...", "ready \n"});
}

// The card returns this until it has woken up.
TEST_F(XrunRecoveryTest, BusyResumeIsRetriedEverySecond) {
    fake_alsa::answerAt("snd_pcm_resume", 1, -EAGAIN);
    fake_alsa::answerAt("snd_pcm_resume", 2, -EAGAIN);
    EXPECT_EQ(0, xrun_recovery(suspended(), -ESTRPIPE));
    expectLog(kCaptureSuspend, {"suspend...", "ready \n"});
    EXPECT_EQ(3, fake_alsa::count("snd_pcm_resume"));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_prepare"));
    EXPECT_THAT(sleeps, ElementsAre(1, 1));
}

TEST_F(XrunRecoveryTest, LastOfSixResumesMaySucceed) {
    for (int i = 1; i <= 5; ++i) {
        fake_alsa::answerAt("snd_pcm_resume", i, -EAGAIN);
    }
    EXPECT_EQ(0, xrun_recovery(suspended(), -ESTRPIPE));
    EXPECT_EQ(6, fake_alsa::count("snd_pcm_resume"));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_prepare"));
    EXPECT_EQ(5u, sleeps.size());
}

TEST_F(XrunRecoveryTest, SixBusyResumesAndSixSecondsLeadToPrepare) {
    std::vector<std::string> order;
    fake_alsa::hooks().before = [&](const std::string& call) { order.push_back(call); };
    fake_sys::hooks().sleep = [&](unsigned seconds) {
        order.push_back("sleep(" + std::to_string(seconds) + ")");
        return 0U;
    };
    fake_alsa::answerAlways("snd_pcm_resume", -EAGAIN);
    snd_pcm_t* const pcm = suspended();
    order.clear();
    EXPECT_EQ(0, xrun_recovery(pcm, -ESTRPIPE));
    std::vector<std::string> expected{"snd_pcm_stream(pcm0)"};
    for (int i = 0; i < 6; ++i) {
        expected.insert(expected.end(), {"snd_pcm_resume(pcm0)", "sleep(1)"});
    }
    expected.push_back("snd_pcm_prepare(pcm0)");
    EXPECT_THAT(order, ElementsAreArray(expected));
    expectLog(kCaptureSuspend, {"suspend...", "ready \n"});
}

TEST_F(XrunRecoveryTest, FailedPrepareAfterBusyResumesIsTheResult) {
    fake_alsa::answerAlways("snd_pcm_resume", -EAGAIN);
    fake_alsa::answerAlways("snd_pcm_prepare", -ENODEV);
    EXPECT_EQ(-ENODEV, xrun_recovery(suspended(), -ESTRPIPE));
    expectLog(kCaptureSuspend,
              {"suspend...", "Can't recovery from suspend, prepare failed: No such device\n"});
}

TEST_F(XrunRecoveryTest, OtherResumeErrorIsPreparedWithoutSleeping) {
    fake_alsa::answerAlways("snd_pcm_resume", -EIO);
    EXPECT_EQ(0, xrun_recovery(suspended(), -ESTRPIPE));
    expectLog(kCaptureSuspend, {"suspend...", "ready \n"});
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_resume"));
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_prepare"));
    EXPECT_THAT(sleeps, IsEmpty());
}

TEST_F(XrunRecoveryTest, OtherErrorAfterABusyResumeEndsTheRetries) {
    fake_alsa::answerAt("snd_pcm_resume", 1, -EAGAIN);
    fake_alsa::answerAt("snd_pcm_resume", 2, -ENOSYS);
    fake_alsa::answerAlways("snd_pcm_prepare", -EIO);
    EXPECT_EQ(-EIO, xrun_recovery(suspended(), -ESTRPIPE));
    EXPECT_EQ(2, fake_alsa::count("snd_pcm_resume"));
    EXPECT_THAT(sleeps, ElementsAre(1));
}

// ---- Anything else -----------------------------------------------------------------------------

TEST_F(XrunRecoveryTest, OtherCodeIsReturnedWithoutTouchingThePcm) {
    EXPECT_EQ(-5, xrun_recovery(capture(), -5));
    expectLog("xrun_recovery: capture xrun, err -5", {"unknown \n"});
    EXPECT_THAT(fake_alsa::calls(), ElementsAre("snd_pcm_stream(pcm0)"));
}

}  // namespace
}  // namespace uafd
