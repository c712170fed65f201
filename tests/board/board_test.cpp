// SPDX-License-Identifier: Apache-2.0
// The simulated board itself: what the daemon and the other tests take for granted about it.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>

namespace uafd {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kNsPerMs = 1000000;

std::string contents(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return file ? text.str() : "no " + path;
}

std::string property(const std::string& name) {
    return contents("/run/properties/" + name);
}

int run(const char* command) {
    const int status = std::system(command);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int64_t nowNs(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

void sleepNs(int64_t ns) {
    const timespec time{ns / kNsPerSecond, ns % kNsPerSecond};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr) == EINTR) {
    }
}

// The value of a "KEY VALUE" line of the module's counters.
int64_t counter(const std::string& key) {
    std::istringstream lines(contents("/proc/usb_host"));
    std::string name;
    for (int64_t value; lines >> name >> value;) {
        if (name == key) {
            return value;
        }
    }
    return -1;
}

// Runs the board's microphone service while it exists.
class MicCapture {
  public:
    MicCapture() : pid(fork()) {
        if (pid == 0) {
            execl("/bin/mic_capture", "mic_capture", nullptr);
            _exit(127);
        }
    }
    ~MicCapture() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    MicCapture(const MicCapture&) = delete;
    MicCapture& operator=(const MicCapture&) = delete;

  private:
    const pid_t pid;
};

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
    return seconds * kNsPerSecond + ns;
}

TEST(Board, RunsAnArm64KernelOnTwoProcessors) {
    utsname name{};
    ASSERT_EQ(uname(&name), 0);
    EXPECT_STREQ(name.machine, "aarch64");
    EXPECT_STREQ(name.sysname, "Linux");
    EXPECT_EQ(sysconf(_SC_NPROCESSORS_ONLN), 2);
}

TEST(Board, StartsItsCalendarInTheYear2026) {
    const int64_t newYearNs = int64_t{1767225600} * kNsPerSecond;
    EXPECT_GE(nowNs(CLOCK_REALTIME), newYearNs);
    EXPECT_LT(nowNs(CLOCK_REALTIME), newYearNs + 3600 * kNsPerSecond);
}

TEST(Board, SkipsTheTimeThatItSleeps) {
    const int64_t sleep = 600 * kNsPerSecond;
    const int64_t before = nowNs(CLOCK_MONOTONIC);
    sleepNs(sleep);
    EXPECT_GE(nowNs(CLOCK_MONOTONIC) - before, sleep);
    EXPECT_LT(nowNs(CLOCK_MONOTONIC) - before, sleep + 10 * kNsPerMs);
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
    MicCapture capture;
    sleepNs(100 * kNsPerMs);
    EXPECT_THAT(contents(kMicStatus), StartsWith("state: RUNNING\n"));
    const int64_t first = micTstampNs();
    EXPECT_LT(std::abs(nowNs(CLOCK_REALTIME) - first), 20 * kNsPerMs);
    sleepNs(kNsPerSecond);
    EXPECT_NEAR(static_cast<double>(micTstampNs() - first), static_cast<double>(kNsPerSecond),
                static_cast<double>(20 * kNsPerMs));
}

}  // namespace
}  // namespace uafd
