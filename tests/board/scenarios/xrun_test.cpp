// SPDX-License-Identifier: Apache-2.0
// The gadget driver loses its stream for a moment, whatever the daemon is doing: the daemon
// restarts the stream at once, and no more sound is lost than the driver held. Or the driver
// refuses to restart it, or fails in the middle of it: the channel stops after three more passes,
// tells the app, and starts at the host's next on event.
#include <cerrno>

#include "tests/board/scenarios/stream_case.h"

namespace uafd {
namespace {

using namespace board;
using stream_log::failedPrepare;
using stream_log::failure;
using stream_log::kickStart;
using stream_log::ready;
using stream_log::recovery;
using stream_log::stop;
using stream_log::stopRequest;
using stream_log::xrunMet;

constexpr int64_t kPeriod = 240;
constexpr int64_t kRing = 720;  // of the playback
constexpr int64_t kUsbFrame = 48;
constexpr int kUsbFramesInPeriod = 5;
constexpr Ns kSettling = 1500 * kMs;

const Lines kPrepare{"xrun", "prepare 0"};
const Lines kRestart = kPrepare + Lines{"start 0"};
constexpr char kRestartFailed[] = "stopping, ALSA failed to start: Input/output error";

class Xrun : public StreamCase {
  protected:
    // A channel that does not read for 100 ms gets an overrun without any fault.
    void overrunByItself() {
        if (isSpeaker()) {
            EXPECT_EQ(host.tryCommand("xrun speaker"), ENXIO);
        } else {
            command("xrun");
        }
    }
    int64_t overruns(const Moment& since) {
        return said(either("overrun...", "underrun..."), since);
    }

    // Causes several xruns, each as soon as the stream runs again.
    Moment strike(int count) {
        const Moment before = mark();
        for (int i = 0; i < count; ++i) {
            command("xrun");
            waitForStarts(i + 1, before);
        }
        return before;
    }
};

// A period lasts five USB frames; the xrun strikes in each of them.
TEST_P(Xrun, InEachFifthOfAPeriodCostsWhatTheDriverHeld) {
    RampCheck sound(this, direction());
    switchOn();
    sleepFor(kSettling);
    std::vector<Moment> moments;
    for (int i = 1; i <= kUsbFramesInPeriod; ++i) {
        moments.push_back(mark());
        injureInPeriod("xrun", i);
        sleepFor(kHealing + kLook);
        expectLog(moments.back(), recovery(direction()));
        EXPECT_EQ(requests(moments.back()), kRestart);
        EXPECT_TRUE(told(moments.back()).empty());
        sound.collect();
    }
    for (const Moment& moment : moments) {
        expectHealthy(&sound, moment.at + kHealing);
    }
    const std::vector<Break> breaks = sound.losses();
    ASSERT_EQ(breaks.size(), moments.size());
    for (int64_t i = 1; i <= kUsbFramesInPeriod; ++i) {
        const Break& gap = breaks[static_cast<size_t>(i - 1)];
        // The speaker loses what was captured and not yet read; the microphone loses what was
        // written and not yet played, where stretched frames hold a little less sound.
        EXPECT_EQ(gap.silent, kPeriod);
        EXPECT_NEAR(static_cast<double>(gap.lost),
                    static_cast<double>(either(i * kUsbFrame, kRing - i * kUsbFrame)),
                    either(0, 3));
    }
}

TEST_P(Xrun, TenTimesInARow) {
    RampCheck sound(this, direction());
    switchOn();
    sleepFor(kSettling);
    const Moment before = strike(10);
    sleepFor(kHealing + kLook);
    sound.collect();
    expectLog(before, times(10, recovery(direction())));
    EXPECT_EQ(requests(before), times(10, kRestart));
    EXPECT_TRUE(told(before).empty());
    EXPECT_LE(sound.lost(), 10 * either(kUsbFrame, kRing));
    expectHealthy(&sound, before.at + kHealing);
}

// A read has taken its period by then; a write's period is lost with what the driver held.
TEST_P(Xrun, InATransfer) {
    RampCheck sound(this, direction());
    switchOn();
    sleepFor(kSettling);
    for (const int count : {1, 10}) {
        const Moment before = mark();
        arm("transfer 32 times=" + std::to_string(count));
        sleepFor(kHealing + kLook);
        sound.collect();
        expectLog(before, times(count, recovery(direction())));
        EXPECT_EQ(requests(before), times(count, kRestart));
        EXPECT_TRUE(told(before).empty());
        expectHealthy(&sound, before.at + kHealing);
    }
    EXPECT_LE(sound.lost(), either(int64_t{0}, 11 * kRing));
}

// This includes the time in which the speaker's beginning is held back and the microphone's buffer
// is filled.
TEST_P(Xrun, InEachOfTheFirstMillisecondsOfAStream) {
    constexpr int milliseconds = 12;
    const Moment before = mark();
    for (int ms = 1; ms <= milliseconds; ++ms) {
        SCOPED_TRACE(ms);
        RampCheck sound(this, direction());
        const Moment start = mark();
        const int64_t at = host.counter(std::string(direction().name) + ".frames") + ms * kUsbFrame;
        command("xrun", "at=" + std::to_string(at));
        switchOn();
        sleepFor(200 * kMs);
        sound.collect();
        EXPECT_EQ(overruns(start),
                  host.countEvents(std::string(direction().pcm) + " xrun", start.at));
        ASSERT_FALSE(sound.sections().empty());
        EXPECT_GT(sound.sections().back().frames, 120 * kUsbFrame);
        switchOff();
        EXPECT_EQ(told(start),
                  (std::vector<Message>{{direction().channel, 1}, {direction().channel, 0}}));
    }
    EXPECT_GE(overruns(before), milliseconds - 1);
}

TEST_P(Xrun, WhileTheAppPauses) {
    RampCheck sound(this, direction());
    switchOn();
    sleepFor(300 * kMs);
    const Moment before = mark();
    app->pauseListening(true);
    app->pauseSpeaking(true);
    sleepFor(200 * kMs);
    overrunByItself();
    sleepFor(200 * kMs);
    app->pauseListening(false);
    app->pauseSpeaking(false);
    const Ns goesOn = now();
    sleepFor(kHealing + kLook);
    sound.collect();
    expectLog(before, recovery(direction()));
    EXPECT_EQ(requests(before), kRestart);
    expectHealthy(&sound, goesOn + kHealing);
}

TEST_P(Xrun, WhileTheAppIsAway) {
    switchOn();
    sleepFor(300 * kMs);
    const Moment before = mark();
    app.reset();
    sleepFor(200 * kMs);
    overrunByItself();
    sleepFor(200 * kMs);
    app = std::make_unique<App>();
    waitForStarts(1, before);
    EXPECT_EQ(overruns(before), 1);
    EXPECT_EQ(requests(before), kRestart);
}

TEST_P(Xrun, WhileTheHostStalls) {
    RampCheck sound(this, direction());
    switchOn();
    sleepFor(kSettling);
    sound.collect();
    const Moment before = mark();
    host.command(std::string("stall ") + direction().name + " 1");
    sleepFor(100 * kMs);
    command("xrun");
    sleepFor(100 * kMs);
    host.command(std::string("stall ") + direction().name + " 0");
    const Ns goesOn = now();
    sleepFor(kHealing + kLook);
    sound.collect();
    const Lines stall{std::string("D ") + direction().tag + ": timeout0, rc=0"};
    const Lines end{either("D UAFSNK: ", "E UAFSRC: ") +
                    std::string("clear timeout, pcmStallCnt=#")};
    // The microphone fills the driver's ring once more, and then stalls again.
    expectLog(before, stall + recovery(direction()) + either(Lines{}, end + stall) + end);
    EXPECT_EQ(requests(before), kRestart);
    expectHealthy(&sound, goesOn + kHealing);
}

// The xrun strikes in each pass that a stop waits for: the current one and three more. After the
// last one no pass is left to start the stream again.
TEST_P(Xrun, WhileTheChannelIsStopping) {
    constexpr int lastPass = 3;
    for (int pass = 0; pass <= lastPass; ++pass) {
        SCOPED_TRACE(pass);
        switchOn();
        sleepFor(100 * kMs);
        const int64_t period = waitForEarlyInPeriod();
        const Moment before = mark();
        deliver(false);
        command("xrun", "at=" + std::to_string(period + pass * kPeriod + 4 * kUsbFrame));
        ASSERT_TRUE(waitForChannel(direction().channel, false, before.messages));
        ASSERT_TRUE(hasThreads(kIdleThreads));
        const bool restarts = pass < lastPass;
        expectLog(before, stopRequest(1) +
                              (restarts ? recovery(direction()) : xrunMet(direction()) + ready()) +
                              stop(direction()));
        EXPECT_EQ(requests(before),
                  (restarts ? kRestart + Lines{"stop"} : kPrepare) + Lines{"close"});
        EXPECT_EQ(told(before), (std::vector<Message>{{direction().channel, 0}}));
        host.command(std::string(direction().name) + " off");
    }
}

// A read needs a running stream, so the speaker's channel stops. A write that fails to start the
// stream has still written, and the next write starts it.
TEST_P(Xrun, WhoseFirstRestartFails) {
    RampCheck sound(this, direction());
    switchOn();
    sleepFor(300 * kMs);
    const Moment before = mark();
    arm("start 5");
    command("xrun");
    if (isSpeaker()) {
        expectStopped(before, recovery(direction()) + failure(direction(), kRestartFailed, 1));
        expectStartable();
    } else {
        sleepFor(kHealing + kLook);
        sound.collect();
        expectLog(before, recovery(direction()));
        expectHealthy(&sound, before.at + kHealing);
    }
}

INSTANTIATE_BOTH_DIRECTIONS(Xrun);
// ---- Recoveries that fail ----------------------------------------------------------------------

class FailedRecovery : public StreamCase {
  protected:
    // The lines of `pass` in each state: in the pass that fails first, and in the three passes that
    // a stop waits for.
    template <typename Pass>
    static Lines everyPass(Pass&& pass) {
        return pass(1) + pass(2) + pass(2) + pass(2);
    }
    static Lines transferFails(int state) {
        return failure(direction(),
                       either("stopping, unexpected read error",
                              "stopping, unexpected write error(Input/output error)"),
                       state);
    }
    static Lines restartFails(int state) {
        return isSpeaker() ? failure(direction(),
                                     "stopping, ALSA failed to start: Input/output error", state)
                           : kickStart(direction()) + transferFails(state);
    }

    // The faults strike the running stream: the channel stops, with these lines in its log.
    void expectStop(const char* name, const std::vector<std::string>& faults, const Lines& log) {
        SCOPED_TRACE(name);
        sleepFor(100 * kMs);
        const Moment before = mark();
        for (const std::string& fault : faults) {
            fault == "xrun" ? command(fault) : arm(fault);
        }
        expectStopped(before, log);
        host.command("fault clear");
        expectStartable();
    }
};

TEST_P(FailedRecovery, StopsTheChannelUntilTheHostsNextWord) {
    switchOn();
    expectStop(
        "one prepare fails", {"prepare 5", "xrun"},
        xrunMet(direction()) + failedPrepare(direction(), "underrun", 1) + recovery(direction()));
    expectStop(
        "one prepare fails after a transfer", {"prepare 5", "transfer 32"},
        xrunMet(direction()) + failedPrepare(direction(), "underrun", 1) + recovery(direction()));
    expectStop("every prepare fails", {"prepare 5 times=0", "xrun"}, everyPass([](int state) {
                   return xrunMet(direction()) + failedPrepare(direction(), "underrun", state);
               }));
    // A playback ring that never plays is full after three writes; the driver then delays each
    // further write by a tenth of a second.
    const Lines full = kickStart(direction()) + Lines{"D UAFSRC: timeout0, rc=0"};
    expectStop("every start fails", {"start 5 times=0", "xrun"},
               recovery(direction()) + either(Lines{}, full) + everyPass(restartFails));
    expectStop("one transfer fails", {"ack 5"}, transferFails(1));
    expectStop("every transfer fails", {"ack 5 times=0"}, everyPass(transferFails));
}

INSTANTIATE_BOTH_DIRECTIONS(FailedRecovery);

}  // namespace
}  // namespace uafd
