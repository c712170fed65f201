// SPDX-License-Identifier: Apache-2.0
// The simulated board itself: what the daemon and the other tests take for granted about it.
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>

#include "board/kit/clock.h"
#include "board/kit/daemon_board.h"
#include "board/kit/files.h"
#include "board/kit/host.h"

namespace uafd {
namespace {

using namespace board;
using testing::HasSubstr;
using testing::StartsWith;

std::string property(const std::string& name) {
    return contents("/run/properties/" + name);
}

int run(const char* command) {
    const int status = std::system(command);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Ns calendar() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time.tv_sec * kSecond + time.tv_nsec;
}

int64_t counter(const std::string& key) {
    return Host().counter(key);
}

constexpr char kMicStatus[] = "/proc/asound/card0/pcm0c/sub0/status";

// The stream's time stamp, or -1 when the status file has none.
int64_t micTstampNs() {
    const std::string status = contents(kMicStatus);
    const size_t at = status.find("\ntstamp");
    long seconds = 0;
    long ns = 0;
    if (at == std::string::npos ||
        sscanf(status.c_str() + at, "\ntstamp      : %ld.%ld", &seconds, &ns) != 2) {
        return -1;
    }
    return seconds * kSecond + ns;
}

TEST(Board, RunsAnArm64KernelOnTwoProcessors) {
    utsname name{};
    ASSERT_EQ(uname(&name), 0);
    EXPECT_STREQ(name.machine, "aarch64");
    EXPECT_STREQ(name.sysname, "Linux");
    EXPECT_EQ(sysconf(_SC_NPROCESSORS_ONLN), 2);
}

TEST(Board, StartsItsCalendarInTheYear2026) {
    const int64_t newYearNs = int64_t{1767225600} * kSecond;
    EXPECT_GE(calendar(), newYearNs);
    EXPECT_LT(calendar(), newYearNs + 3600 * kSecond);
}

TEST(Board, SkipsTheTimeThatItSleeps) {
    const int64_t sleep = 600 * kSecond;
    const int64_t before = now();
    sleepFor(sleep);
    EXPECT_GE(now() - before, sleep);
    EXPECT_LT(now() - before, sleep + 10 * kMs);
}

TEST(Board, HasItsOwnCardFirstAndTheGadgetCardSecond) {
    EXPECT_EQ(contents("/proc/asound/card0/id"), "rockchiprt5640c\n");
    EXPECT_THAT(contents("/proc/asound/cards"), HasSubstr("Vexa_Gadget"));
    EXPECT_EQ(counter("card"), 1);
}

TEST(Board, HasTheGadgetControlDeviceWithoutANode) {
    EXPECT_THAT(contents("/proc/devices"), HasSubstr("\n122 "));
    EXPECT_NE(access("/dev/uac_user", F_OK), 0);
}

TEST(Board, HasTheStateFilesOfGadgetAndCable) {
    EXPECT_EQ(contents("/sys/devices/virtual/android_usb/android0/state"), "CONFIGURED\n");
    EXPECT_THAT(
        contents("/sys/devices/platform/ff2c0000.syscon/ff2c0000.syscon:usb2-phy@100/extcon/"
                 "extcon0/cable.0/state"),
        StartsWith("1"));
}

TEST(Board, NamesTheControllerInAProperty) {
    EXPECT_EQ(property("sys.usb.controller"), "ff300000.usb");
}

TEST(Setprop, SetsReplacesAndEmptiesAProperty) {
    EXPECT_EQ(run("setprop uafd.test one"), 0);
    EXPECT_EQ(property("uafd.test"), "one");
    EXPECT_EQ(run("setprop uafd.test 'a longer value'"), 0);
    EXPECT_EQ(property("uafd.test"), "a longer value");
    EXPECT_EQ(run("setprop uafd.test ''"), 0);
    EXPECT_EQ(property("uafd.test"), "");
}

TEST(Setprop, TakesAMissingValueForAnEmptyOne) {
    EXPECT_EQ(run("setprop uafd.test one"), 0);
    EXPECT_EQ(run("setprop uafd.test "), 0);
    EXPECT_EQ(property("uafd.test"), "");
}

TEST(Setprop, RefusesANameThatIsNoName) {
    EXPECT_EQ(run("setprop 2>/dev/null"), 1);
    EXPECT_EQ(run("setprop '' value 2>/dev/null"), 1);
    EXPECT_EQ(run("setprop ../escaped value 2>/dev/null"), 1);
    EXPECT_NE(access("/run/escaped", F_OK), 0);
}

TEST(Setprop, ReenumeratesTheGadgetForTheUsbConfiguration) {
    const int64_t records = counter("records.queued");
    EXPECT_EQ(run("setprop uafd.test one"), 0);
    EXPECT_EQ(counter("records.queued"), records);
    EXPECT_EQ(run(("setprop sys.usb.config " + property("sys.usb.config")).c_str()), 0);
    // The gadget's function was unbound and bound again: a record for each.
    EXPECT_EQ(counter("records.queued"), records + 2);
    EXPECT_EQ(contents("/sys/devices/virtual/android_usb/android0/state"), "CONFIGURED\n");
}

TEST(MicCapture, ShowsARunningStreamWithARealTimeStampThatMoves) {
    EXPECT_EQ(contents(kMicStatus), "closed\n");
    const MicService capture;
    sleepFor(100 * kMs);
    EXPECT_THAT(contents(kMicStatus), StartsWith("state: RUNNING\n"));
    const int64_t first = micTstampNs();
    EXPECT_LT(std::abs(calendar() - first), 20 * kMs);
    sleepFor(kSecond);
    EXPECT_NEAR(static_cast<double>(micTstampNs() - first), static_cast<double>(kSecond),
                static_cast<double>(20 * kMs));
}

}  // namespace
}  // namespace uafd
