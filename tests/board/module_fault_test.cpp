// SPDX-License-Identifier: Apache-2.0
// The simulated hardware itself: faults of the gadget's sound card, as alsa-lib shows them to a
// program, and the card's coming and going.
#include <cerrno>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/audio_host.h"
#include "board/kit/files.h"
#include "tests/board/module_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;

constexpr snd_pcm_uframes_t kBuffer = 2400;
constexpr snd_pcm_uframes_t kPeriod = 240;

class Fault : public ModuleCase, public testing::WithParamInterface<Direction> {
  protected:
    static snd_pcm_stream_t stream() {
        return GetParam() == kSpeakerDirection ? SND_PCM_STREAM_CAPTURE : SND_PCM_STREAM_PLAYBACK;
    }
    // A playback starts only when there is something to play, so this writes first.
    static int start(Pcm& pcm) {
        if (snd_pcm_stream(pcm.get()) == SND_PCM_STREAM_PLAYBACK) {
            pcm.write(std::vector<int16_t>(kPeriod - 1));
        }
        return pcm.start();
    }
    // Sets the PCM up, starts it and waits until it moves.
    void run(Pcm& pcm) {
        ASSERT_EQ(pcm.setUp(kBuffer, kPeriod), "");
        ASSERT_EQ(start(pcm), 0);
        command(std::string(GetParam().name) + " on");
        ASSERT_TRUE(waitFor([this] { return count("periods") > 0; }));
    }
    int64_t count(const char* what) { return counter(std::string(GetParam().pcm) + "." + what); }
    void arm(const std::string& fault) {
        ASSERT_EQ(command("fault " + std::string(GetParam().pcm) + "." + fault), 0);
    }
    int injure(const std::string& how) { return command(how + " " + GetParam().name); }
};

// Returns the negative error with which a transfer of one period fails.
snd_pcm_sframes_t transfer(Pcm& pcm, snd_pcm_stream_t stream) {
    std::vector<int16_t> frames(kPeriod);
    return stream == SND_PCM_STREAM_CAPTURE ? pcm.read(frames) : pcm.write(frames);
}

TEST_P(Fault, FailsAnOpen) {
    arm("open 13");
    EXPECT_EQ(Pcm(stream()).opened(), -EACCES);
    EXPECT_EQ(Pcm(stream()).opened(), 0);
}

TEST_P(Fault, FailsEveryStepOfSettingUp) {
    const struct {
        const char* fault;
        const char* failed;
    } rows[] = {
        {"config 5", "any-5"},        {"access 5", "access-5"},     {"format 22", "format-22"},
        {"channels 5", "channels-5"}, {"rate 12", "rate-12"},       {"buffer 5", "buffer-5"},
        {"period 16", "period-16"},   {"hw_params 5", "install-5"}, {"prepare 5", "install-5"},
        {"unplug 1", "install-19"},
    };
    for (const auto& row : rows) {
        arm(row.fault);
        Pcm broken(stream());
        ASSERT_EQ(broken.opened(), 0) << row.fault;
        EXPECT_EQ(broken.setUp(kBuffer, kPeriod), row.failed);
        command("card add");
    }
    EXPECT_EQ(Pcm(stream()).setUp(kBuffer, kPeriod), "");
}

TEST_P(Fault, GrantsAnotherRate) {
    arm("other_rate 44100");
    Pcm pcm(stream());
    EXPECT_EQ(pcm.setUp(kBuffer, kPeriod), "");
    EXPECT_EQ(pcm.rate, 44100U);
}

TEST_P(Fault, FailsAStart) {
    arm("start 19 after=1 times=2");
    Pcm pcm(stream());
    ASSERT_EQ(pcm.setUp(kBuffer, kPeriod), "");
    EXPECT_EQ(start(pcm), 0);
    for (const int expected : {-ENODEV, -ENODEV, 0}) {
        snd_pcm_drop(pcm.get());
        snd_pcm_prepare(pcm.get());
        EXPECT_EQ(start(pcm), expected);
    }
}

TEST_P(Fault, MakesAnXrunNow) {
    Pcm pcm(stream());
    run(pcm);
    const int64_t xruns = count("xruns");
    Notes log(*this);
    EXPECT_EQ(injure("xrun"), 0);
    EXPECT_THAT(log.texts(), ElementsAre(GetParam().pcm + std::string(" xrun")));
    EXPECT_EQ(pcm.state(), SND_PCM_STATE_XRUN);
    EXPECT_EQ(count("xruns"), xruns + 1);
    EXPECT_EQ(transfer(pcm, stream()), -EPIPE);
    EXPECT_EQ(injure("xrun"), ENXIO);
    EXPECT_EQ(snd_pcm_prepare(pcm.get()), 0);
    EXPECT_EQ(pcm.state(), SND_PCM_STATE_PREPARED);
}

TEST_P(Fault, MakesAnXrunAtAnExactFrame) {
    Pcm pcm(stream());
    run(pcm);
    const std::string host = GetParam().name;
    const std::string idle = host == "mic" ? "mic.silent" : "speaker.lost";
    const int64_t idleBefore = counter(idle);
    const int64_t at = counter(host + ".frames") + 48000;
    ASSERT_EQ(command("xrun " + host + " at=" + std::to_string(at)), 0);
    ASSERT_TRUE(waitFor([&] { return pcm.state() == SND_PCM_STATE_XRUN; }));
    // Every frame since then found no running PCM.
    command("stall " + host + " 1");
    EXPECT_EQ(counter(host + ".frames") - at, counter(idle) - idleBefore);
}

TEST_P(Fault, LetsATransferMeetWhatNoWaitHasToldOf) {
    const struct {
        int error;
        snd_pcm_state_t state;
    } rows[] = {{EPIPE, SND_PCM_STATE_XRUN}, {ESTRPIPE, SND_PCM_STATE_SUSPENDED}};
    const int64_t before = count("xruns") + count("suspends");
    for (const auto& row : rows) {
        Pcm pcm(stream());
        run(pcm);
        arm("transfer " + std::to_string(row.error) + " after=1");
        EXPECT_EQ(snd_pcm_wait(pcm.get(), 10), 1);
        EXPECT_EQ(transfer(pcm, stream()), static_cast<snd_pcm_sframes_t>(kPeriod));
        EXPECT_EQ(snd_pcm_wait(pcm.get(), 10), 1);
        EXPECT_EQ(transfer(pcm, stream()), -row.error);
        EXPECT_EQ(pcm.state(), row.state);
        command(std::string(GetParam().name) + " off");
    }
    EXPECT_EQ(count("xruns") + count("suspends"), before + 2);
}

TEST_P(Fault, FailsATransfer) {
    Pcm pcm(stream());
    run(pcm);
    arm("ack 5 times=2");
    for (const snd_pcm_sframes_t expected : {-EIO, -EIO, static_cast<int>(kPeriod)}) {
        EXPECT_EQ(snd_pcm_wait(pcm.get(), 10), 1);
        EXPECT_EQ(transfer(pcm, stream()), expected);
        EXPECT_EQ(pcm.state(), SND_PCM_STATE_RUNNING);
    }
}

TEST_P(Fault, SuspendsAndRefusesToResume) {
    Pcm pcm(stream());
    run(pcm);
    arm("resume 11 times=3");
    EXPECT_EQ(injure("suspend"), 0);
    EXPECT_EQ(pcm.state(), SND_PCM_STATE_SUSPENDED);
    EXPECT_EQ(transfer(pcm, stream()), -ESTRPIPE);
    for (const int expected : {-EAGAIN, -EAGAIN, -EAGAIN, 0}) {
        EXPECT_EQ(snd_pcm_resume(pcm.get()), expected);
    }
    EXPECT_EQ(pcm.state(), SND_PCM_STATE_RUNNING);
    const int64_t periods = count("periods");
    EXPECT_TRUE(waitFor([&] { return count("periods") > periods; }));
}

TEST_P(Fault, CanBePreparedInsteadOfResumed) {
    Pcm pcm(stream());
    run(pcm);
    arm("resume 5");
    EXPECT_EQ(injure("suspend"), 0);
    EXPECT_EQ(snd_pcm_resume(pcm.get()), -EIO);
    EXPECT_EQ(snd_pcm_prepare(pcm.get()), 0);
    EXPECT_EQ(pcm.state(), SND_PCM_STATE_PREPARED);
}

TEST_P(Fault, SuspendsOneDirectionOnly) {
    const bool capture = stream() == SND_PCM_STREAM_CAPTURE;
    Pcm pcm(stream());
    run(pcm);
    Pcm other(capture ? SND_PCM_STREAM_PLAYBACK : SND_PCM_STREAM_CAPTURE);
    ASSERT_EQ(other.setUp(kBuffer, kPeriod), "");
    ASSERT_EQ(start(other), 0);
    EXPECT_EQ(injure("suspend"), 0);
    EXPECT_EQ(pcm.state(), SND_PCM_STATE_SUSPENDED);
    EXPECT_EQ(other.state(), SND_PCM_STATE_RUNNING);
}

TEST_P(Fault, DisconnectsAStreamWhenTheCardIsRemoved) {
    Pcm pcm(stream());
    run(pcm);
    EXPECT_EQ(command("card remove"), 0);
    EXPECT_EQ(pcm.state(), SND_PCM_STATE_DISCONNECTED);
    EXPECT_LT(snd_pcm_wait(pcm.get(), 10), 0);
    EXPECT_LT(transfer(pcm, stream()), 0);
    EXPECT_LT(snd_pcm_prepare(pcm.get()), 0);
    EXPECT_EQ(command("card remove"), ENODEV);
    // The same index serves a new card while the old card is still open.
    EXPECT_EQ(command("card add"), 0);
    EXPECT_EQ(command("card add"), EBUSY);
    Pcm fresh(stream());
    EXPECT_EQ(fresh.setUp(kBuffer, kPeriod), "");
}

TEST_P(Fault, WakesABlockedTransferWhenTheCardIsRemoved) {
    Pcm pcm(stream());
    ASSERT_EQ(pcm.setUp(kBuffer, kPeriod), "");
    std::thread remover([this] {
        sleepFor(20 * kMs);
        command("card remove");
    });
    snd_pcm_sframes_t result = 0;
    while (result >= 0) {
        result = transfer(pcm, stream());
    }
    EXPECT_EQ(result, -EBADFD);
    remover.join();
}

INSTANTIATE_TEST_SUITE_P(Pcm, Fault, testing::Values(kSpeakerDirection, kMicDirection),
                         [](const auto& info) { return std::string(info.param.pcm); });

class Card : public ModuleCase {};

TEST_F(Card, AppearsAtAnotherIndex) {
    ASSERT_EQ(command("unbind"), 0);
    ASSERT_EQ(command("bind 4"), 0);
    EXPECT_EQ(counter("card"), 4);
    EXPECT_LT(Pcm(SND_PCM_STREAM_CAPTURE, "hw:1").opened(), 0);
    EXPECT_EQ(Pcm(SND_PCM_STREAM_CAPTURE, "hw:4").opened(), 0);
    EXPECT_EQ(command("card remove"), 0);
    EXPECT_EQ(command("card add 0"), EBUSY);
    EXPECT_EQ(command("card add -1"), EINVAL);
    EXPECT_EQ(command("card add 32"), EINVAL);
}

int64_t freeKib() {
    const std::string info = contents("/proc/meminfo");
    return std::stoll(info.substr(info.find("MemFree:") + 8));
}

TEST_F(Card, SurvivesAStormOfUnplugging) {
    int64_t before = 0;
    for (int i = 0; i < 120; i++) {
        if (i == 20) {
            before = freeKib();
        }
        ASSERT_EQ(command("bind"), 0);
        Pcm capture(SND_PCM_STREAM_CAPTURE);
        Pcm playback(SND_PCM_STREAM_PLAYBACK);
        ASSERT_EQ(capture.setUp(kBuffer, kPeriod), "");
        ASSERT_EQ(playback.setUp(kBuffer, kPeriod), "");
        ASSERT_EQ(capture.start(), 0);
        command("speaker on");
        command("mic on");
        transfer(playback, SND_PCM_STREAM_PLAYBACK);
        // Each time at another moment of the USB frame.
        sleepFor(i * 37 * 1000);
        ASSERT_EQ(command("unbind"), 0);
        EXPECT_EQ(capture.state(), SND_PCM_STATE_DISCONNECTED);
    }
    EXPECT_LT(before - freeKib(), 2048);
}

}  // namespace
}  // namespace uafd
