// SPDX-License-Identifier: Apache-2.0
// The gadget driver suspends a stream: the daemon asks it to resume, again every second while it is
// not ready, and after six seconds prepares the PCM instead. The other direction's sound is not
// disturbed.
#include "tests/board/scenarios/stream_case.h"

namespace uafd {
namespace {

using namespace board;
using stream_log::failedPrepare;
using stream_log::failure;
using stream_log::kickStart;
using stream_log::ready;
using stream_log::stopRequest;
using stream_log::suspendMet;

constexpr Ns kSettling = 1500 * kMs;

// How often a driver refuses to resume, and how that ends.
struct Refusal {
    const char* name;
    const char* fault;
    int refusals;
    const char* answer;
    bool prepared;  // at the end, instead of resumed
    Ns seconds;     // how long it takes
};
const Refusal kRefusals[] = {
    {"never", "resume 0 times=1", 0, "", false, 0},
    {"three times", "resume 11 times=3", 3, "resume -11", false, 3},
    {"six times", "resume 11 times=6", 6, "resume -11", true, 6},
    {"with another error", "resume 5", 1, "resume -5", true, 0},
};

class Suspend : public StreamCase {
  protected:
    // When the driver got a request, since the moment.
    std::vector<Ns> timesOf(const std::string& request, const Moment& since) {
        std::vector<Ns> times;
        for (const HostEvent& event : host.eventsSince(since.at)) {
            if (event.text == std::string(direction().pcm) + " " + request) {
                times.push_back(event.at);
            }
        }
        return times;
    }
};

TEST_P(Suspend, IsOverAsSoonAsTheDriverResumes) {
    RampCheck sound(this, direction());
    switchOn();
    sleepFor(kSettling);
    for (const Refusal& row : kRefusals) {
        SCOPED_TRACE(row.name);
        const Moment before = mark();
        arm(row.fault);
        injureInPeriod("suspend", 3);
        const char* const last = row.prepared ? "start 0" : "resume 0";
        ASSERT_TRUE(waitFor([&] { return !timesOf(last, before).empty(); }, 10 * kSecond));
        const Ns again = now();
        // Meanwhile the microphone's buffer filled up; it shrinks by a sample a frame at most.
        const Ns healthyAfter = row.refusals == 6 ? either(kHealing, 3 * kSecond) : kHealing;
        sleepFor(healthyAfter + kLook);
        sound.collect();
        expectLog(before, suspendMet(direction()) + ready() +
                              (row.prepared ? kickStart(direction()) : Lines{}));
        EXPECT_EQ(requests(before),
                  Lines{"suspend"} + times(row.refusals, {row.answer}) +
                      (row.prepared ? Lines{"prepare 0", "start 0"} : Lines{"resume 0"}));
        EXPECT_TRUE(told(before).empty());
        const Ns took = timesOf(last, before).front() - timesOf("suspend", before).front();
        EXPECT_NEAR(static_cast<double>(took), static_cast<double>(row.seconds * kSecond), kMs);
        expectHealthy(&sound, again + healthyAfter);
    }
}

// What was copied before the transfer failed does not count: a read's period is heard twice, a
// write's is lost.
TEST_P(Suspend, InATransferCostsAPeriod) {
    RampCheck sound(this, direction());
    switchOn();
    sleepFor(kSettling);
    const Moment before = mark();
    arm("transfer 86");
    sleepFor(kHealing + kLook);
    sound.collect();
    expectLog(before, suspendMet(direction()) + ready());
    EXPECT_EQ(requests(before), (Lines{"suspend", "resume 0"}));
    const std::vector<Break> losses = sound.losses();
    ASSERT_EQ(losses.size(), 1U);
    EXPECT_EQ(losses[0].silent, 0);
    EXPECT_NEAR(static_cast<double>(losses[0].lost), static_cast<double>(either(-240, 240)), 1);
    expectHealthy(&sound, before.at + kHealing);
}

TEST_P(Suspend, ThatNothingEndsStopsTheChannel) {
    switchOn();
    sleepFor(300 * kMs);
    const Moment before = mark();
    arm("resume 5");
    arm("prepare 5");
    command("suspend");
    const Lines restart =
        kickStart(direction()) +
        failure(direction(),
                either("stopping, ALSA failed to start: File descriptor in bad state",
                       "stopping, unexpected write error(File descriptor in bad state)"),
                2);
    expectStopped(before, suspendMet(direction()) + failedPrepare(direction(), "suspend", 1) +
                              times(3, restart));
    expectStartable();
}

TEST_P(Suspend, LeavesTheOtherWayAlone) {
    const Direction other = isSpeaker() ? kMicDirection : kSpeakerDirection;
    RampCheck sound(this, other);
    host.command(std::string(other.name) + " on");
    switchOn();
    sleepFor(kSettling);
    const Ns from = now();
    arm("resume 11 times=3");
    command("suspend");
    sleepFor(4 * kSecond);
    sound.collect();
    for (const Break& gap : sound.breaks()) {
        EXPECT_LT(gap.at, from);
    }
    EXPECT_GE(sound.sections().back().end, from + 4 * kSecond - 20 * kMs);
}

// The channel's thread asks the driver once a second and sees nothing else meanwhile.
TEST_P(Suspend, OutlastsTheHostsStop) {
    switchOn();
    sleepFor(300 * kMs);
    const Moment before = mark();
    arm("resume 11 times=3");
    command("suspend");
    sleepFor(kSecond / 2);
    deliver(false);
    expectStopped(before, suspendMet(direction()) + stopRequest(1) + ready(), 4 * kSecond);
    EXPECT_GE(now(), before.at + 3 * kSecond);
    expectStartable();
}

TEST_P(Suspend, OutlastsTheHostsStopAndStart) {
    RampCheck sound(this, direction());
    switchOn();
    sleepFor(kSettling);
    const Moment before = mark();
    arm("resume 11 times=3");
    command("suspend");
    sleepFor(kSecond / 2);
    deliver(false);
    deliver(true);
    sleepFor(3 * kSecond + kHealing);
    sound.collect();
    expectLog(before,
              suspendMet(direction()) + stopRequest(1) +
                  Lines{"D UAFCH: intfUpdate to 1, current state 2", "D UAFCH: stopDelayCnt = #"} +
                  ready());
    EXPECT_TRUE(told(before).empty());
    expectHealthy(&sound, before.at + 3 * kSecond + kHealing);
}

INSTANTIATE_BOTH_DIRECTIONS(Suspend);

}  // namespace
}  // namespace uafd
