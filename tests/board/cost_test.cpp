// SPDX-License-Identifier: Apache-2.0
// What the daemon costs: processor time for a second of audio, and memory. On the board's virtual
// clock a nanosecond of processor time is one instruction, and a program needs the same number of
// them in every run, to within some thousandths: a change that costs or saves more shows here.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gnu/libc-version.h>
#include <string>

#include <sys/utsname.h>

#include "board/kit/host.h"
#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;

// What the daemon may cost. When a change makes it cheaper or, for a good reason, more expensive,
// the test prints the new figures: put them here in the same commit.
struct ExpectedCost {
    const char* what;
    int64_t instructions;  // per second
};

constexpr ExpectedCost kSpeakerCost{"speaker", 3739000};
constexpr ExpectedCost kMicrophoneCost{"microphone", 3852000};
constexpr ExpectedCost kBothCost{"both", 7506000};
constexpr ExpectedCost kIdleCost{"idle", 66900};

// The environment of the measurement. In any other the figures hold only approximately.
constexpr char kCostMeasuredWith[] = "Linux 6.1.0-56-arm64, glibc 2.36, GCC 12.2.0";

// The host's clock is so slow that it drifts through one of the app's blocks, 10 ms, in 10 s:
// whatever the moment of the start, all phases between host, app and kernel count equally.
constexpr char kHostClock[] = "ppb -1000000";
constexpr Ns kSettling = 3 * kSecond;
constexpr Ns kMeasured = 20 * kSecond;
constexpr Ns kIdle = 60 * kSecond;
constexpr double kTolerance = 0.02;
constexpr double kToleranceElsewhere = 0.10;  // with another kernel, C library or compiler
constexpr int64_t kResidentKbMax = 8192;
constexpr int64_t kPrivateKbMax = 2048;

std::string runsWith() {
    utsname kernel{};
    uname(&kernel);
    return std::string("Linux ") + kernel.release + ", glibc " + gnu_get_libc_version() + ", GCC " +
           __VERSION__;
}

class Cost : public BoardCase {
  protected:
    void measure(const ExpectedCost& expected, bool speaker, bool mic) {
        startAlone();
        host.command(kHostClock);
        const HostPlayer player(noise);
        app->speak(noise);
        if (speaker) {
            host.command("speaker on");
        }
        if (mic) {
            host.command("mic on");
        }
        sleepFor(kSettling);
        if (speaker && mic) {
            moveApart();
        }
        app->takeHeard();
        host.takeRecording();
        const Ns before = cpuOf(daemon.pid());
        sleepFor(kMeasured);
        check(expected, cpuOf(daemon.pid()) - before, kMeasured);
        constexpr auto frames = static_cast<double>(kMeasured / kSecond * kRate);
        if (speaker) {
            EXPECT_NEAR(static_cast<double>(app->takeHeard().left.size()), frames, frames / 100);
        }
        if (mic) {
            const Samples recording = host.takeRecording();
            const auto sounding = std::count_if(recording.begin(), recording.end(),
                                                [](int16_t sample) { return sample != 0; });
            EXPECT_NEAR(static_cast<double>(sounding), frames, frames / 100);
        }
    }

    // An interrupt counts as a cost of the process that it interrupts. With this jitter of the
    // app's blocks the kernel's tick of 4 ms meets them in all phases. The board's own microphone
    // stays silent, as a running stream does not need it.
    void startAlone() {
        AppOptions options;
        options.jitter = 4 * kMs;
        start(false, options);
    }

    // Both directions cost less when their periods end in the same USB frame, which depends on when
    // they start. This makes them end two frames apart.
    void moveApart() {
        constexpr int64_t periodFrames = 240;
        constexpr int64_t apart = 2 * 48;
        const auto is = [&] {
            const auto values = host.counters();
            const auto moved = [&](const std::string& direction) {
                return values.at(direction + ".frames") - values.at(direction + ".start_frames");
            };
            return (moved("speaker") - moved("mic") + 100 * periodFrames) % periodFrames;
        };
        for (int shifts = 0; is() != apart && shifts < 10; ++shifts) {
            waitForUsbFrame();
            host.command("stall mic 1");
            waitForUsbFrame();
            host.command("stall mic 0");
        }
        ASSERT_EQ(is(), apart);
    }

    // Returns just after the next USB frame.
    void waitForUsbFrame() {
        const int64_t frames = host.counter("speaker.frames");
        while (host.counter("speaker.frames") == frames) {
            sleepFor(kMs / 20);
        }
    }

    void check(const ExpectedCost& expected, Ns used, Ns time) {
        const int64_t perSecond = used / (time / kSecond);
        const MemoryView memory = memoryOf(daemon.pid());
        const auto wanted = static_cast<double>(expected.instructions);
        const double off = (static_cast<double>(perSecond) - wanted) / wanted;
        char line[200];
        snprintf(line, sizeof line,
                 "cost: %-10s %9lld instructions for a second, %+.2f %%, %lld kB resident, %lld kB "
                 "private\n",
                 expected.what, static_cast<long long>(perSecond), 100 * off,
                 static_cast<long long>(memory.residentKb),
                 static_cast<long long>(memory.privateKb));
        fputs(line, stdout);
        std::ofstream("/out/cost.txt", std::ios::app) << line;
        const bool isSame = runsWith() == kCostMeasuredWith;
        EXPECT_LE(std::abs(off), isSame ? kTolerance : kToleranceElsewhere)
            << "measured with " << kCostMeasuredWith << ", here with " << runsWith();
        EXPECT_LT(memory.residentKb, kResidentKbMax);
        EXPECT_LT(memory.privateKb, kPrivateKbMax);
    }
};

TEST_F(Cost, OfTheSpeaker) {
    measure(kSpeakerCost, true, false);
}

TEST_F(Cost, OfTheMicrophone) {
    measure(kMicrophoneCost, false, true);
}

TEST_F(Cost, OfBothDirections) {
    measure(kBothCost, true, true);
}

TEST_F(Cost, OfDoingNothing) {
    startAlone();
    sleepFor(kSettling);
    const Ns before = cpuOf(daemon.pid());
    sleepFor(kIdle);
    check(kIdleCost, cpuOf(daemon.pid()) - before, kIdle);
}

}  // namespace
}  // namespace uafd
