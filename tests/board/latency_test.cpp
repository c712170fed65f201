// SPDX-License-Identifier: Apache-2.0
// How fast the daemon serves a period: from its end in the gadget's driver to its bytes in the
// app's FIFO, and from free space in the PCM to the samples written there. Both directions run and
// change their phase now and then, so that their periods also end at the same time, and meet the
// app's blocks in all phases. This is a tool as well, see docs/reliability/realtime.md:
// LATENCY_SECONDS sets how long each case measures.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "board/kit/hogs.h"
#include "board/kit/statistics.h"
#include "board/kit/streaming.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr Ns kPeriod = 5 * kMs;
constexpr Ns kSoon = kMs / 10;     // for 99.9 % of the answers
constexpr int kHostPpb = 1000000;  // drifts through one of the app's blocks, 10 ms, in 10 s
constexpr int kPhases = 10;
constexpr int kSecondsUnlessTold = 10;

Ns measuredTime() {
    const char* const seconds = getenv("LATENCY_SECONDS");
    return (seconds == nullptr ? kSecondsUnlessTold : atoi(seconds)) * kSecond;
}

class Latency : public BoardCase {
  protected:
    void measure(const char* how) {
        start();
        host.command("ppb " + std::to_string(kHostPpb));
        Streaming streaming(this);
        AnswerTimes answers(streaming.threads(), measuredTime());
        for (int phase = 0; phase < kPhases; ++phase) {
            host.command("stall mic 1");
            sleepFor(kMs);
            host.command("stall mic 0");
            streaming.run(measuredTime() / kPhases, [&] { answers.look(); });
        }
        report("period ready to bytes in the FIFO", how, answers.speaker());
        report("room in the PCM to samples written", how, answers.mic());
        printf("latency: %lld periods ended together\n",
               static_cast<long long>(answers.endedTogether()));
        EXPECT_GT(answers.endedTogether(), 0);
        EXPECT_EQ(host.counter("capture.xruns") + host.counter("playback.xruns"), 0);
    }

    void report(const char* what, const char* how, AnswerTimes::Waits answers) {
        EXPECT_EQ(answers.unasked, 0);
        EXPECT_LE(answers.unanswered, 1);
        std::vector<Ns>& waits = answers.times;
        const double periods = static_cast<double>(measuredTime()) / kPeriod;
        EXPECT_NEAR(static_cast<double>(waits.size()), periods, periods / 50);
        std::sort(waits.begin(), waits.end());
        const auto us = [&](double share) {
            return static_cast<double>(quantileOf(waits, share)) / 1000;
        };
        const auto late = waits.end() - std::upper_bound(waits.begin(), waits.end(), kSoon);
        char line[240];
        snprintf(line, sizeof line,
                 "latency: %-34s, %-5s, %d cpus, %6zu periods: 50 %% %6.1f, 99 %% %6.1f, 99.9 %% "
                 "%6.1f, max %6.1f us; %lld above 100\n",
                 what, how, processors(), waits.size(), us(0.5), us(0.99), us(0.999), us(1),
                 static_cast<long long>(late));
        fputs(line, stdout);
        std::ofstream("/out/latency.txt", std::ios::app) << line;
        EXPECT_LT(quantileOf(waits, 0.999), kSoon);
    }
};

TEST_F(Latency, OfADaemonAlone) {
    measure("alone");
}

TEST_F(Latency, AmongBusyProcesses) {
    const Hogs hogs;
    const Ns from = now();
    measure("busy");
    const double share =
        static_cast<double>(hogs.cpu()) / static_cast<double>((now() - from) * processors());
    printf("latency: the hogs had %.1f %% of the processors\n", 100 * share);
    EXPECT_GT(share, 0.8);
}

}  // namespace
}  // namespace uafd
