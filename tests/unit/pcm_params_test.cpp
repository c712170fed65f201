// SPDX-License-Identifier: Apache-2.0
#include "alsa/pcm_params.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/fake_alsa.h"
#include "tests/support/fake_log.h"

namespace uafd {
namespace {

using fake_log::kAlsaLog;
using fake_log::Line;
using testing::ElementsAre;
using testing::IsEmpty;

class PcmParamsTest : public fake_sys::Test {
  protected:
    void SetUp() override { open(); }
    void open() {
        snd_pcm_open(&pcm, "hw:1", SND_PCM_STREAM_CAPTURE, 0);
        fake_alsa::clearCalls();
    }
    int setHw() { return setHwParams(pcm, 2400, 240, 1, 48000); }
    int setSw() { return setSwParams(pcm, 240, 4800, 240); }

    snd_pcm_t* pcm = nullptr;
};

// ---- Hardware parameters -----------------------------------------------------------------------

TEST_F(PcmParamsTest, HardwareStepsRunInOrder) {
    EXPECT_EQ(0, setHw());
    EXPECT_THAT(fake_alsa::calls(),
                ElementsAre("snd_pcm_hw_params_any(pcm0, zeroed)",
                            "snd_pcm_hw_params_set_access(pcm0, RW_INTERLEAVED)",
                            "snd_pcm_hw_params_set_format(pcm0, S16_LE)",
                            "snd_pcm_hw_params_set_channels(pcm0, 1)",
                            "snd_pcm_hw_params_set_rate_near(pcm0, 48000, 0)",
                            "snd_pcm_hw_params_set_buffer_size_near(pcm0, 2400)",
                            "snd_pcm_hw_params_set_period_size_near(pcm0, 240, 0)",
                            "snd_pcm_hw_params(pcm0)"));
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(PcmParamsTest, HardwareArgumentsComeFromTheCaller) {
    EXPECT_EQ(0, setHwParams(pcm, 720, 120, 2, 44100));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_hw_params_set_channels"),
                ElementsAre("snd_pcm_hw_params_set_channels(pcm0, 2)"));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_hw_params_set_rate_near"),
                ElementsAre("snd_pcm_hw_params_set_rate_near(pcm0, 44100, 0)"));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_hw_params_set_buffer_size_near"),
                ElementsAre("snd_pcm_hw_params_set_buffer_size_near(pcm0, 720)"));
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_hw_params_set_period_size_near"),
                ElementsAre("snd_pcm_hw_params_set_period_size_near(pcm0, 120, 0)"));
}

TEST_F(PcmParamsTest, ZeroSizesAreLeftToTheDriver) {
    EXPECT_EQ(0, setHwParams(pcm, 0, 0, 1, 48000));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_hw_params_set_buffer_size_near"));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_hw_params_set_period_size_near"));
    EXPECT_EQ(6u, fake_alsa::calls().size());
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_hw_params"));
}

TEST_F(PcmParamsTest, EachSizeIsSkippedByItself) {
    EXPECT_EQ(0, setHwParams(pcm, 0, 240, 1, 48000));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_hw_params_set_buffer_size_near"));
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_hw_params_set_period_size_near"));
    fake_alsa::clearCalls();
    EXPECT_EQ(0, setHwParams(pcm, 2400, 0, 1, 48000));
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_hw_params_set_buffer_size_near"));
    EXPECT_EQ(0, fake_alsa::count("snd_pcm_hw_params_set_period_size_near"));
}

TEST_F(PcmParamsTest, InexactRateIsLoggedAndTaken) {
    fake_alsa::nextDevice().grantedRate = 44100;
    open();
    EXPECT_EQ(0, setHw());
    EXPECT_THAT(fake_log::lines(),
                ElementsAre(kAlsaLog.debug(
                    "warnning: rate is not accurate, want 48000 Hz, got 44100 Hz\n")));
    EXPECT_EQ(1, fake_alsa::count("snd_pcm_hw_params"));
}

TEST_F(PcmParamsTest, RateOffByOneIsInexact) {
    fake_alsa::nextDevice().grantedRate = 48001;
    open();
    EXPECT_EQ(0, setHw());
    EXPECT_EQ(1, fake_log::count(kAlsaLog.debug(
                     "warnning: rate is not accurate, want 48000 Hz, got 48001 Hz\n")));
}

TEST_F(PcmParamsTest, DirectionOfTheRateReachesThePeriod) {
    fake_alsa::nextDevice().rateDirection = -1;
    open();
    EXPECT_EQ(0, setHw());
    EXPECT_THAT(fake_alsa::callsOf("snd_pcm_hw_params_set_period_size_near"),
                ElementsAre("snd_pcm_hw_params_set_period_size_near(pcm1, 240, -1)"));
}

TEST_F(PcmParamsTest, GrantedSizesAreNoError) {
    fake_alsa::nextDevice().grantedBuffer = 1920;
    fake_alsa::nextDevice().grantedPeriod = 480;
    open();
    EXPECT_EQ(0, setHw());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// ---- Software parameters -----------------------------------------------------------------------

TEST_F(PcmParamsTest, SoftwareStepsRunInOrder) {
    EXPECT_EQ(0, setSw());
    EXPECT_THAT(fake_alsa::calls(), ElementsAre("snd_pcm_sw_params_current(pcm0, zeroed)",
                                                "snd_pcm_sw_params_set_start_threshold(pcm0, 240)",
                                                "snd_pcm_sw_params_set_stop_threshold(pcm0, 4800)",
                                                "snd_pcm_sw_params_set_avail_min(pcm0, 240)",
                                                "snd_pcm_sw_params(pcm0)"));
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

TEST_F(PcmParamsTest, EachThresholdHasItsArgument) {
    EXPECT_EQ(0, setSwParams(pcm, 1, 2, 3));
    EXPECT_EQ(1u, fake_alsa::callsOf("snd_pcm_sw_params_set_start_threshold").size());
    EXPECT_EQ("snd_pcm_sw_params_set_start_threshold(pcm0, 1)", fake_alsa::calls()[1]);
    EXPECT_EQ("snd_pcm_sw_params_set_stop_threshold(pcm0, 2)", fake_alsa::calls()[2]);
    EXPECT_EQ("snd_pcm_sw_params_set_avail_min(pcm0, 3)", fake_alsa::calls()[3]);
}

// ---- Every step's failure ----------------------------------------------------------------------

struct FailingStep {
    const char* call;    // the alsa-lib call that fails
    int callsMade;       // up to and including it
    int code;            // what it returns
    const char* report;  // what is logged
};

std::ostream& operator<<(std::ostream& out, const FailingStep& step) {
    return out << step.call;
}

class HwStepTest : public PcmParamsTest, public testing::WithParamInterface<FailingStep> {};
class SwStepTest : public PcmParamsTest, public testing::WithParamInterface<FailingStep> {};

TEST_P(HwStepTest, FailureIsReportedAndEndsTheSetup) {
    fake_alsa::answerAlways(GetParam().call, GetParam().code);
    EXPECT_EQ(GetParam().code, setHw());
    EXPECT_EQ(static_cast<size_t>(GetParam().callsMade), fake_alsa::calls().size());
    EXPECT_EQ(1, fake_alsa::count(GetParam().call));
    EXPECT_THAT(fake_log::lines(), ElementsAre(kAlsaLog.error(GetParam().report)));
}

TEST_P(HwStepTest, PositiveResultIsSuccess) {
    fake_alsa::answerAlways(GetParam().call, 1);
    EXPECT_EQ(0, setHw());
    EXPECT_EQ(8u, fake_alsa::calls().size());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(PcmParams, HwStepTest,
                         testing::Values(FailingStep{"snd_pcm_hw_params_any", 1, -EIO,
                                                     "error at setHwParams@112: rc=-5\n"},
                                         FailingStep{"snd_pcm_hw_params_set_access", 2, -EINVAL,
                                                     "error at setHwParams@118: rc=-22\n"},
                                         FailingStep{"snd_pcm_hw_params_set_format", 3, -EINVAL,
                                                     "error at setHwParams@122: rc=-22\n"},
                                         FailingStep{"snd_pcm_hw_params_set_channels", 4, -EINVAL,
                                                     "error at setHwParams@126: rc=-22\n"},
                                         FailingStep{"snd_pcm_hw_params_set_rate_near", 5, -EPERM,
                                                     "error at setHwParams@132: rc=-1\n"},
                                         FailingStep{"snd_pcm_hw_params_set_buffer_size_near", 6,
                                                     -EINVAL, "error at setHwParams@140: rc=-22\n"},
                                         FailingStep{"snd_pcm_hw_params_set_period_size_near", 7,
                                                     -EINVAL, "error at setHwParams@147: rc=-22\n"},
                                         FailingStep{"snd_pcm_hw_params", 8, -ENODEV,
                                                     "error at setHwParams@152: rc=-19\n"}));

TEST_P(SwStepTest, FailureIsReportedAndEndsTheSetup) {
    fake_alsa::answerAlways(GetParam().call, GetParam().code);
    EXPECT_EQ(GetParam().code, setSw());
    EXPECT_EQ(static_cast<size_t>(GetParam().callsMade), fake_alsa::calls().size());
    EXPECT_EQ(1, fake_alsa::count(GetParam().call));
    EXPECT_THAT(fake_log::lines(), ElementsAre(kAlsaLog.error(GetParam().report)));
}

TEST_P(SwStepTest, PositiveResultIsSuccess) {
    fake_alsa::answerAlways(GetParam().call, 1);
    EXPECT_EQ(0, setSw());
    EXPECT_EQ(5u, fake_alsa::calls().size());
    EXPECT_THAT(fake_log::lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(PcmParams, SwStepTest,
                         testing::Values(FailingStep{"snd_pcm_sw_params_current", 1, -EIO,
                                                     "error at setSwParams@73: err=-5\n"},
                                         FailingStep{"snd_pcm_sw_params_set_start_threshold", 2,
                                                     -EINVAL, "error at setSwParams@77: err=-22\n"},
                                         FailingStep{"snd_pcm_sw_params_set_stop_threshold", 3,
                                                     -EINVAL, "error at setSwParams@81: err=-22\n"},
                                         FailingStep{"snd_pcm_sw_params_set_avail_min", 4, -EPERM,
                                                     "error at setSwParams@85: err=-1\n"},
                                         FailingStep{"snd_pcm_sw_params", 5, -ENODEV,
                                                     "error at setSwParams@89: err=-19\n"}));

TEST_F(PcmParamsTest, NothingComesFromTheHeap) {
    fake_alsa::stopRecording();
    int allocations = 0;
    fake_sys::hooks().malloc = [&](size_t size) {
        ++allocations;
        return fake_sys::real::malloc(size);
    };
    fake_sys::hooks().calloc = [&](size_t n, size_t size) {
        ++allocations;
        return fake_sys::real::calloc(n, size);
    };
    EXPECT_EQ(0, setHw());
    EXPECT_EQ(0, setSw());
    EXPECT_EQ(0, allocations);
}

TEST_F(PcmParamsTest, FailureLeavesThePcmOpen) {
    fake_alsa::answerAlways("snd_pcm_hw_params", -EBUSY);
    EXPECT_EQ(-EBUSY, setHw());
    EXPECT_EQ(1, fake_alsa::pcmsOpen());
}

}  // namespace
}  // namespace uafd
