// SPDX-License-Identifier: Apache-2.0
// The host starts and stops its streams faster than they stop: an on event while a stop still
// waits, and a thousand random sequences of both streams.
#include <cstdio>
#include <set>

#include "board/kit/app.h"
#include "board/kit/host.h"
#include "board/kit/random.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

// ---- An on event while the channel is stopping -------------------------------------------------

class Debounce : public Scenario, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override { start(); }
    bool speaker() const { return GetParam(); }
    std::string pcm() const { return speaker() ? "capture" : "playback"; }
    uint32_t channel() const { return speaker() ? kSpeaker : kMic; }
    uint32_t record() const { return channel() + 1; }
    // The count at which the on event came, or -1 when the channel had stopped.
    int cancelAfter(Ns delay) {
        look();
        queue(record(), 0);
        sleepFor(delay);
        queue(record(), 1);
        EXPECT_TRUE(settle());
        for (int count = 0; count <= 3; ++count) {
            if (said("stopDelayCnt = " + std::to_string(count)) == 1) {
                return count;
            }
        }
        return -1;
    }
};

TEST_P(Debounce, EndsAtEachCountWithTheStreamUnbroken) {
    const HostPlayer player(ramp);
    app->speak(ramp);
    host.command(speaker() ? "speaker on" : "mic on");
    ASSERT_TRUE(waitForChannel(channel(), true, 0));
    sleepFor(300 * kMs);
    Samples heard = app->takeHeard().left;
    const auto before = host.counters();
    std::set<int> counts;
    int last = 0;
    for (Ns delay = 0; last >= 0; delay += kMs) {
        last = cancelAfter(delay);
        if (last >= 0) {
            SCOPED_TRACE(last);
            counts.insert(last);
            sleepFor(50 * kMs);
            EXPECT_TRUE(told().empty());
            const Samples more = app->takeHeard().left;
            heard.insert(heard.end(), more.begin(), more.end());
            for (const char* key : {".opens", ".closes", ".stops", ".xruns"}) {
                EXPECT_EQ(host.counter(pcm() + key), before.at(pcm() + key)) << key;
            }
            EXPECT_EQ(host.counter("mic.stale"), before.at("mic.stale"));
        }
    }
    EXPECT_EQ(counts, (std::set<int>{0, 1, 2, 3}));
    // The host may have played nothing yet when its stream began.
    EXPECT_EQ(breaksIn(heard), 0);
    // The next on event came too late: the channel has stopped, and starts again.
    EXPECT_EQ(said("start, opening hw:1"), 1);
    expectTold({{channel(), 0}, {channel(), 1}});
}

INSTANTIATE_TEST_SUITE_P(Both, Debounce, testing::Bool(),
                         [](const auto& info) { return info.param ? "Speaker" : "Mic"; });

// ---- A thousand sequences ----------------------------------------------------------------------

constexpr uint64_t kSeed = 20260101;
constexpr int kSequences = 1000;
constexpr int kSequencesAProof = 250;

class StartStop : public BoardCase {
  protected:
    void SetUp() override { start(); }

    // Makes up to six switches of the two streams, at once or up to 30 ms apart: a stop waits for
    // four passes, of 5 ms while data moves and of 10 ms when it does not.
    void playSequence() {
        for (int64_t switches = 1 + random.below(6); switches > 0; --switches) {
            const bool mic = random.flip();
            wanted[mic] = random.flip();
            switchStream(mic);
            if (random.flip()) {
                sleepFor(random.below(30000) * kMs / 1000);
            }
        }
    }
    void switchStream(bool mic) {
        host.command(std::string(mic ? "mic" : "speaker") + (wanted[mic] ? " on" : " off"));
    }

    // The daemon's last message about each channel is what the host wants.
    bool isAsWanted() {
        const std::vector<Message> told = app->messageValues(seen);
        watch.see(told);
        seen += told.size();
        return watch.isOn(kSpeaker) == wanted[false] && watch.isOn(kMic) == wanted[true] &&
               threadCount(daemon.pid()) ==
                   kIdleThreads + (wanted[false] ? 1U : 0U) + (wanted[true] ? 2U : 0U);
    }
    void becomeAsWanted() {
        if (!waitFor([this] { return isAsWanted(); }, 500 * kMs) &&
            daemon.count("ALERT! This should be impossible and can cause inconsistencies in this "
                         "channel's state.") > alerts) {
            // An on event came when the stop could no longer be cancelled. The next one starts the
            // stream.
            ++alerts;
            switchStream(false);
            switchStream(true);
        }
        ASSERT_TRUE(waitFor([this] { return isAsWanted(); }));
        ASSERT_EQ(watch.repetition(), "");
    }

    bool wanted[2] = {false, false};  // speaker, mic
    int alerts = 0;

  private:
    Random random{kSeed};
    ChannelWatch watch;
    size_t seen = 0;
};

TEST_F(StartStop, AThousandRandomSequencesEndAsTheHostWants) {
    printf("seed %llu\n", static_cast<unsigned long long>(kSeed));
    for (int i = 1; i <= kSequences; ++i) {
        SCOPED_TRACE(i);
        playSequence();
        becomeAsWanted();
        if (HasFatalFailure()) {
            return;
        }
        if (i % kSequencesAProof == 0) {
            ASSERT_EQ(findDamage(), "");
            wanted[false] = wanted[true] = false;
        }
    }
    const auto counters = host.counters();
    printf("%lld speaker starts, %lld mic starts, %d cancelled stops, %d met too late\n",
           static_cast<long long>(counters.at("capture.opens")),
           static_cast<long long>(counters.at("playback.opens")), daemon.count("stopDelayCnt = #"),
           alerts);
    EXPECT_EQ(counters.at("capture.opens"), counters.at("capture.closes"));
    EXPECT_EQ(counters.at("playback.opens"), counters.at("playback.closes"));
    EXPECT_GT(counters.at("capture.opens") + counters.at("playback.opens"), kSequences / 2);
}

}  // namespace
}  // namespace uafd
