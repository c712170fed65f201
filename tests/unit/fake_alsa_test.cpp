// SPDX-License-Identifier: Apache-2.0
// The fake alsa-lib itself: what the daemon's tests rely on.
#include "tests/support/fake_alsa.h"

#include <cerrno>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace uafd {
namespace {

using fake_alsa::capturedSample;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t kNsPerMs = 1000000;

class FakeAlsaTest : public fake_sys::Test {
  protected:
    // 48 kHz mono, periods of 240 frames.
    static snd_pcm_t* opened(snd_pcm_stream_t stream, snd_pcm_uframes_t bufferFrames,
                             snd_pcm_uframes_t stopThreshold) {
        snd_pcm_t* pcm = nullptr;
        EXPECT_EQ(0, snd_pcm_open(&pcm, "hw:1", stream, 0));
        snd_pcm_hw_params_t* hw;
        snd_pcm_hw_params_alloca(&hw);
        unsigned rate = 48000;
        int direction = 0;
        snd_pcm_uframes_t period = 240;
        EXPECT_EQ(0, snd_pcm_hw_params_any(pcm, hw));
        EXPECT_EQ(0, snd_pcm_hw_params_set_channels(pcm, hw, 1));
        EXPECT_EQ(0, snd_pcm_hw_params_set_rate_near(pcm, hw, &rate, &direction));
        EXPECT_EQ(0, snd_pcm_hw_params_set_buffer_size_near(pcm, hw, &bufferFrames));
        EXPECT_EQ(0, snd_pcm_hw_params_set_period_size_near(pcm, hw, &period, &direction));
        EXPECT_EQ(0, snd_pcm_hw_params(pcm, hw));
        snd_pcm_sw_params_t* sw;
        snd_pcm_sw_params_alloca(&sw);
        EXPECT_EQ(0, snd_pcm_sw_params_current(pcm, sw));
        EXPECT_EQ(0, snd_pcm_sw_params_set_start_threshold(pcm, sw, 240));
        EXPECT_EQ(0, snd_pcm_sw_params_set_stop_threshold(pcm, sw, stopThreshold));
        EXPECT_EQ(0, snd_pcm_sw_params(pcm, sw));
        fake_alsa::clearCalls();
        return pcm;
    }
    static snd_pcm_t* capture() {
        snd_pcm_t* const pcm = opened(SND_PCM_STREAM_CAPTURE, 2400, 4800);
        EXPECT_EQ(0, snd_pcm_start(pcm));
        fake_alsa::clearCalls();
        return pcm;
    }
    static snd_pcm_t* playback() { return opened(SND_PCM_STREAM_PLAYBACK, 720, 1440); }

    int16_t samples[2400] = {};
};

TEST_F(FakeAlsaTest, KeepsEveryCallWithItsArguments) {
    snd_pcm_t* const pcm = capture();
    snd_pcm_wait(pcm, 10);
    snd_pcm_readi(pcm, samples, 240);
    EXPECT_THAT(fake_alsa::calls(),
                ElementsAre("snd_pcm_wait(pcm0, 10)", "snd_pcm_readi(pcm0, 240)"));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_wait"), ElementsAre("snd_pcm_wait(pcm0, 10)"));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm"));
}

TEST_F(FakeAlsaTest, KeepsNothingWhenToldSo) {
    snd_pcm_t* const pcm = playback();
    fake_alsa::stopRecording();
    fake_alsa::hooks().before = [](const std::string&) { ADD_FAILURE(); };
    fake_alsa::answerAt("snd_pcm_wait", 1, -EIO);
    EXPECT_EQ(-EIO, snd_pcm_wait(pcm, 10));
    EXPECT_EQ(240, snd_pcm_writei(pcm, samples, 240));
    EXPECT_THAT(fake_alsa::calls(), IsEmpty());
    EXPECT_THAT(fake_alsa::written(pcm), IsEmpty());
}

TEST_F(FakeAlsaTest, AnswersTheNthCallFromTheScript) {
    snd_pcm_t* const pcm = capture();
    fake_alsa::answerAt("snd_pcm_wait", 2, -EPIPE);
    EXPECT_EQ(1, snd_pcm_wait(pcm, 10));
    EXPECT_EQ(-EPIPE, snd_pcm_wait(pcm, 10));
    EXPECT_EQ(1, snd_pcm_wait(pcm, 10));
    fake_alsa::answerAt("snd_pcm_wait", 1, -EIO);
    fake_alsa::answerAlways("snd_pcm_wait", 0);
    EXPECT_EQ(-EIO, snd_pcm_wait(pcm, 10));
    EXPECT_EQ(0, snd_pcm_wait(pcm, 10));
    fake_alsa::stopAnswering("snd_pcm_wait");
    EXPECT_EQ(1, snd_pcm_wait(pcm, 10));
}

TEST_F(FakeAlsaTest, HookReplacesTheDeviceAndMayAskIt) {
    snd_pcm_t* const pcm = capture();
    fake_alsa::hooks().wait = [](snd_pcm_t* waited, int timeoutMs) {
        return fake_alsa::device::wait(waited, timeoutMs) + 41;
    };
    EXPECT_EQ(42, snd_pcm_wait(pcm, 10));
}

TEST_F(FakeAlsaTest, BeforeHookSeesTheCallAndMayScriptIt) {
    snd_pcm_t* const pcm = capture();
    fake_alsa::hooks().before = [](const std::string& call) {
        if (call == "snd_pcm_start(pcm0)") {
            fake_alsa::answerAt("snd_pcm_start", 1, -ENODEV);
        }
    };
    EXPECT_EQ(-ENODEV, snd_pcm_start(pcm));
}

TEST_F(FakeAlsaTest, CaptureFillsWithTime) {
    snd_pcm_t* const pcm = capture();
    EXPECT_EQ(0, snd_pcm_avail_update(pcm));
    fake_alsa::advance(pcm, 15 * kNsPerMs);
    EXPECT_EQ(720, snd_pcm_avail_update(pcm));
}

TEST_F(FakeAlsaTest, WaitLetsTimePassToTheNextPeriod) {
    snd_pcm_t* const pcm = capture();
    EXPECT_EQ(1, snd_pcm_wait(pcm, 10));
    EXPECT_EQ(5 * kNsPerMs, fake_alsa::elapsedNs(pcm));
    EXPECT_EQ(1, snd_pcm_wait(pcm, 10));
    EXPECT_EQ(5 * kNsPerMs, fake_alsa::elapsedNs(pcm));
}

TEST_F(FakeAlsaTest, WaitOnAStalledDeviceTakesItsTimeout) {
    snd_pcm_t* const pcm = capture();
    fake_alsa::stall(pcm, true);
    EXPECT_EQ(0, snd_pcm_wait(pcm, 10));
    EXPECT_EQ(10 * kNsPerMs, fake_alsa::elapsedNs(pcm));
    EXPECT_EQ(0, snd_pcm_avail_update(pcm));
}

TEST_F(FakeAlsaTest, ReadsDeliverTheKnownSequence) {
    snd_pcm_t* const pcm = capture();
    EXPECT_EQ(240, snd_pcm_readi(pcm, samples, 240));
    EXPECT_EQ(240, snd_pcm_readi(pcm, samples, 240));
    EXPECT_EQ(capturedSample(240), samples[0]);
    EXPECT_EQ(capturedSample(479), samples[239]);
    EXPECT_EQ(10 * kNsPerMs, fake_alsa::elapsedNs(pcm));
}

TEST_F(FakeAlsaTest, OverdueCaptureFallsIntoAnXrunUntilPrepared) {
    snd_pcm_t* const pcm = capture();
    fake_alsa::advance(pcm, 100 * kNsPerMs - 1);
    EXPECT_EQ(4799, snd_pcm_avail_update(pcm));
    fake_alsa::advance(pcm, 1);
    EXPECT_EQ(SND_PCM_STATE_XRUN, snd_pcm_state(pcm));
    EXPECT_EQ(-EPIPE, snd_pcm_wait(pcm, 10));
    EXPECT_EQ(-EPIPE, snd_pcm_readi(pcm, samples, 240));
    EXPECT_EQ(-EPIPE, snd_pcm_avail_update(pcm));
    EXPECT_EQ(0, snd_pcm_prepare(pcm));
    EXPECT_EQ(SND_PCM_STATE_PREPARED, snd_pcm_state(pcm));
    EXPECT_EQ(0, snd_pcm_start(pcm));
    EXPECT_EQ(240, snd_pcm_readi(pcm, samples, 240));
    EXPECT_EQ(capturedSample(4800), samples[0]);
}

TEST_F(FakeAlsaTest, PlaybackStartsAtItsThresholdAndKeepsWhatItTook) {
    snd_pcm_t* const pcm = playback();
    samples[1] = 7;
    EXPECT_EQ(240, snd_pcm_writei(pcm, samples, 240));
    EXPECT_EQ(SND_PCM_STATE_RUNNING, snd_pcm_state(pcm));
    EXPECT_EQ(480, snd_pcm_avail_update(pcm));
    EXPECT_EQ(240u, fake_alsa::written(pcm).size());
    EXPECT_EQ(7, fake_alsa::written(pcm)[1]);
}

TEST_F(FakeAlsaTest, FullPlaybackWaitsForRoom) {
    snd_pcm_t* const pcm = playback();
    EXPECT_EQ(720, snd_pcm_writei(pcm, samples, 720));
    EXPECT_EQ(1, snd_pcm_wait(pcm, 10));
    EXPECT_EQ(5 * kNsPerMs, fake_alsa::elapsedNs(pcm));
    EXPECT_EQ(480, snd_pcm_writei(pcm, samples, 480));
    EXPECT_EQ(10 * kNsPerMs, fake_alsa::elapsedNs(pcm));
}

TEST_F(FakeAlsaTest, StarvedPlaybackFallsIntoAnXrun) {
    snd_pcm_t* const pcm = playback();
    EXPECT_EQ(240, snd_pcm_writei(pcm, samples, 240));
    fake_alsa::advance(pcm, 20 * kNsPerMs);
    EXPECT_EQ(-EPIPE, snd_pcm_writei(pcm, samples, 240));
}

TEST_F(FakeAlsaTest, DeviceClockMayBeOffItsRate) {
    fake_alsa::nextDevice().clockPpm = 500;
    snd_pcm_t* const pcm = opened(SND_PCM_STREAM_CAPTURE, 2400, 1000000);
    EXPECT_EQ(0, snd_pcm_start(pcm));
    fake_alsa::advance(pcm, 1000 * kNsPerMs);
    EXPECT_EQ(48024, snd_pcm_avail_update(pcm));
}

TEST_F(FakeAlsaTest, SuspendedDeviceResumes) {
    snd_pcm_t* const pcm = capture();
    fake_alsa::setState(pcm, SND_PCM_STATE_SUSPENDED);
    EXPECT_EQ(-ESTRPIPE, snd_pcm_wait(pcm, 10));
    EXPECT_EQ(0, snd_pcm_resume(pcm));
    EXPECT_EQ(1, snd_pcm_wait(pcm, 10));
}

TEST_F(FakeAlsaTest, CallOnAClosedPcmFailsTheTest) {
    static snd_pcm_t* pcm;
    pcm = capture();
    EXPECT_EQ(1, fake_alsa::pcmsOpen());
    snd_pcm_close(pcm);
    EXPECT_EQ(0, fake_alsa::pcmsOpen());
    EXPECT_NONFATAL_FAILURE(snd_pcm_wait(pcm, 10), "pcm0, which is not open");
    EXPECT_NONFATAL_FAILURE(snd_pcm_wait(nullptr, 10), "null, which is not open");
}

TEST_F(FakeAlsaTest, TwoThreadsEachRunTheirOwnPcm) {
    snd_pcm_t* const capturing = capture();
    snd_pcm_t* const playing = playback();
    std::thread reader([capturing] {
        int16_t period[240];
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(1, snd_pcm_wait(capturing, 10));
            EXPECT_EQ(240, snd_pcm_readi(capturing, period, 240));
        }
    });
    std::thread writer([playing] {
        const int16_t period[240] = {};
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(1, snd_pcm_wait(playing, 10));
            EXPECT_EQ(240, snd_pcm_writei(playing, period, 240));
        }
    });
    reader.join();
    writer.join();
    EXPECT_EQ(5000 * kNsPerMs, fake_alsa::elapsedNs(capturing));
    EXPECT_EQ(240000u, fake_alsa::written(playing).size());
    EXPECT_EQ(2000, fake_alsa::count("snd_pcm_wait"));
}

TEST_F(FakeAlsaTest, CardsAreFoundInOrderOfTheirIndex) {
    fake_alsa::setCards({{0, "rockchip"}, {3, "Vexa_Gadget", -EBUSY}});
    int card = -1;
    EXPECT_EQ(0, snd_card_next(&card));
    EXPECT_EQ(0, card);
    EXPECT_EQ(0, snd_card_next(&card));
    EXPECT_EQ(3, card);
    EXPECT_EQ(0, snd_card_next(&card));
    EXPECT_EQ(-1, card);
    snd_ctl_t* control = nullptr;
    EXPECT_EQ(-EBUSY, snd_ctl_open(&control, "hw:3", 0));
    EXPECT_EQ(-ENOENT, snd_ctl_open(&control, "hw:1", 0));
    ASSERT_EQ(0, snd_ctl_open(&control, "hw:0", 0));
    EXPECT_EQ(1, fake_alsa::controlsOpen());
    snd_ctl_card_info_t* info;
    snd_ctl_card_info_alloca(&info);
    EXPECT_EQ(0, snd_ctl_card_info(control, info));
    EXPECT_STREQ("rockchip", snd_ctl_card_info_get_driver(info));
    EXPECT_EQ(0, snd_ctl_close(control));
    EXPECT_EQ(0, fake_alsa::controlsOpen());
}

TEST_F(FakeAlsaTest, ErrorTextsAreTheSystemsOwn) {
    EXPECT_STREQ("No such device", snd_strerror(-ENODEV));
    EXPECT_STREQ("No such device", snd_strerror(ENODEV));
    EXPECT_STREQ("Unknown error", snd_strerror(-SND_ERROR_BEGIN));
}

}  // namespace
}  // namespace uafd
