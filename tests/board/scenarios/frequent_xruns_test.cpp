// SPDX-License-Identifier: Apache-2.0
// Both directions have an xrun twice a second, for half a minute or, with --seconds N, for longer:
// the daemon recovers from each, and latency and loss stay as small as after a single one.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gmock/gmock.h>

#include "board/kit/ramp_check.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr Ns kSettling = 1500 * kMs;
constexpr Ns kEvery = 500 * kMs;
constexpr int64_t kUsbFrame = 48;
constexpr int64_t kPeriod = 240;
constexpr int64_t kRing = 720;  // of the playback
constexpr Ns kPeriodTime = 5 * kMs;

int seconds = 30;

class FrequentXruns : public Scenario {
  protected:
    // Every break comes within `reach` of an xrun, no loss is larger than what the driver held, and
    // the latency never leaves its bounds.
    void check(const char* name, RampCheck* sound, const std::vector<Ns>& xruns, int64_t held,
               Ns latencyMax) {
        constexpr Ns reach = 100 * kMs;
        for (const Break& gap : sound->breaks()) {
            const auto after = std::upper_bound(xruns.begin(), xruns.end(), gap.at + kPeriodTime);
            ASSERT_NE(after, xruns.begin()) << "a break before the first xrun";
            EXPECT_LT(gap.at - *(after - 1), reach) << name;
            EXPECT_LE(gap.lost, held) << name;
        }
        const Spread latency = sound->latency(xruns.front(), now());
        printf("%s: %zu xruns, %ld frames lost in %zu places, latency %s\n", name, xruns.size(),
               static_cast<long>(sound->lost()), sound->losses().size(), inMs(latency).c_str());
        EXPECT_LE(latency.largest, latencyMax) << name;
        EXPECT_LE(sound->losses().size(), xruns.size()) << name;
    }
};

TEST_F(FrequentXruns, CostNoMoreThanTheFirst) {
    start();
    RampCheck heard(this, kSpeakerDirection);
    RampCheck recorded(this, kMicDirection);
    switchBoth(true);
    sleepFor(kSettling);
    const size_t mark = daemon.mark();
    std::vector<Ns> xruns;
    for (int i = 0; i < seconds * 2; ++i) {
        // Each time at another place of the period.
        sleepFor(kEvery + (i % 5 - 2) * 733 * kMs / 1000);
        xruns.push_back(now());
        host.command("xrun speaker");
        host.command("xrun mic");
        if (i % 10 == 0) {
            heard.collect();
            recorded.collect();
        }
    }
    sleepFor(kSecond);
    heard.collect();
    recorded.collect();
    const auto count = static_cast<int>(xruns.size());
    EXPECT_EQ(daemon.count("overrun...", mark), count);
    EXPECT_EQ(daemon.count("underrun...", mark), count);
    EXPECT_EQ(daemon.count("ready ", mark), 2 * count);
    check("speaker", &heard, xruns, kPeriod + kUsbFrame, 9 * kMs);
    check("microphone", &recorded, xruns, kRing + kUsbFrame, 25 * kMs);
}

}  // namespace
}  // namespace uafd

using namespace uafd;

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    if (argc == 3 && strcmp(argv[1], "--seconds") == 0) {
        seconds = atoi(argv[2]);
    } else if (argc != 1) {
        fprintf(stderr, "usage: frequent_xruns_test [--seconds N]\n");
        return EXIT_FAILURE;
    }
    return RUN_ALL_TESTS();
}
