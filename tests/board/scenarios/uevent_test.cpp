// SPDX-License-Identifier: Apache-2.0
// Uevents that are not the gadget's: sent by processes, to other groups, too long, without a
// subsystem, and more of them than the daemon can read.
#include <gmock/gmock.h>

#include "board/kit/host.h"
#include "tests/board/board_case.h"
#include "tests/board/uevents.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned kKernelGroup = 1;
constexpr char kStranger[] = "ignoring non-kernel netlink multicast message";
constexpr char kOverrun[] =
    "recvmsg error: <-1:105:No buffer space available> - likely a timeout for RK-based SoC";
constexpr char kGadgetGone[] =
    "change@/devices/virtual/android_usb/android0 ACTION=change "
    "DEVPATH=/devices/virtual/android_usb/android0 SUBSYSTEM=android_usb USB_STATE=DISCONNECTED";

class Uevents : public Scenario {
  protected:
    void SetUp() override {
        start();
        ASSERT_TRUE(app->waitForMessages(5));
        look();
        marked = daemon.mark();
    }

    // How many lines the monitor has logged, without its ticks.
    int linesSaid() {
        daemon.log();
        int lines = 0;
        for (size_t i = marked; i < daemon.log().size(); ++i) {
            lines += matches(daemon.log()[i].text,
                             "recvmsg error: <-1:11:Resource temporarily unavailable> - "
                             "likely a timeout for RK-based SoC")
                         ? 0
                         : 1;
        }
        return lines;
    }
    // The daemon hears a uevent of the gadget.
    void expectHearing() {
        const size_t before = app->messages().size();
        host.command("cable 0");
        host.command("usb_state DISCONNECTED");
        host.command("usb_state CONFIGURED");
        host.command("cable 1");
        ASSERT_TRUE(app->waitForMessages(before + 2));
        EXPECT_THAT(app->messageValues(before), ElementsAre(Message{0, 0}, Message{0, 1}));
    }

    UeventSender sender;

  private:
    size_t marked = 0;
};

// The daemon sees and refuses what a process sends to the group that it listens to; it does not
// listen to the other groups.
TEST_F(Uevents, OfProcessesAreIgnoredInEveryGroup) {
    int refused = 0;
    for (unsigned group = 1; group != 0; group <<= 1) {
        SCOPED_TRACE(group);
        sender.send(ueventText(kGadgetGone), group);
        sleepFor(20 * kMs);
        refused += group <= 8 ? 1 : 0;
        EXPECT_EQ(said(kStranger), refused);
    }
    EXPECT_EQ(linesSaid(), refused);
    EXPECT_THAT(told(), IsEmpty());
    expectHearing();
}

// A uevent of 2304 bytes fits into the buffer, and is then refused for its contents.
TEST_F(Uevents, ThatAreTooLongAreDroppedAsTruncated) {
    constexpr size_t longest = 2304;
    sender.send(std::string(longest, 'x'), kKernelGroup);
    ASSERT_TRUE(daemon.waitForLog(kStranger));
    for (const size_t size : {longest + 1, size_t{4000}, size_t{100000}}) {
        sender.send(std::string(size, 'x'), kKernelGroup);
    }
    sleepFor(100 * kMs);
    EXPECT_EQ(said("recvmsg truncate: <2304:11:Resource temporarily unavailable>, buf size is "
                   "2304") +
                  said("recvmsg truncate: <2304:0:Success>, buf size is 2304"),
              3);
    EXPECT_EQ(said(kStranger), 1);
    EXPECT_THAT(told(), IsEmpty());
    expectHearing();
}

TEST_F(Uevents, OfNoSubsystemAreNobodys) {
    sender.sendAsKernel(
        ueventText("change@/devices/virtual/android_usb/android0 ACTION=change "
                   "DEVPATH=/devices/virtual/android_usb/android0 USB_STATE=DISCONNECTED"));
    sleepFor(100 * kMs);
    EXPECT_EQ(linesSaid(), 0);
    EXPECT_THAT(told(), IsEmpty());
    // With a subsystem the same text is the gadget's; its line shows that the one before was read.
    sender.sendAsKernel(ueventText(kGadgetGone));
    ASSERT_TRUE(daemon.waitForLog("subsystem: android_usb, action: 3, usbstate=DISCONNECTED"));
    EXPECT_THAT(told(), ElementsAre(Message{0, 0}));
    host.command("usb_state CONFIGURED");
}

TEST_F(Uevents, ThatAreNoneAreReportedAndDropped) {
    for (const char* text : {"libudev", "", "change ACTION=change SUBSYSTEM=android_usb"}) {
        sender.sendAsKernel(ueventText(text));
    }
    EXPECT_TRUE(daemon.waitForLog("decoding netlinmk msg failed", 0, 3));
    EXPECT_EQ(linesSaid(), 3);
    EXPECT_THAT(told(), IsEmpty());
    expectHearing();
}

// Both directions go on during a flood. What the socket cannot hold is lost and the daemon logs the
// loss; afterwards no trace is left.
class Flood : public Uevents, public testing::WithParamInterface<bool> {
  protected:
    static constexpr int kUevents = 100000;
    static bool isKernels() { return GetParam(); }

    void flood() {
        // Uses a subsystem that the daemon ignores, like most of a board's uevents.
        const std::string text = ueventText(
            "change@/devices/virtual/thermal/thermal_zone0 ACTION=change "
            "DEVPATH=/devices/virtual/thermal/thermal_zone0 SUBSYSTEM=thermal");
        for (int i = 0; i < kUevents; ++i) {
            if (isKernels()) {
                sender.sendAsKernel(text);
            } else {
                sender.send(text, kKernelGroup);
            }
        }
    }
};

TEST_P(Flood, OfAHundredThousandPassesAndLeavesNothing) {
    host.command("flush speaker");
    const HostPlayer player(noise);
    ASSERT_TRUE(player.fill());
    app->speak(noise);
    bothOn();
    ASSERT_TRUE(hostHears());
    const Ns cpu = cpuOf(daemon.pid());
    const int64_t memory = memoryOf(daemon.pid()).privateKb;
    const Ns start = now();
    flood();
    const Ns time = now() - start;
    const Ns used = cpuOf(daemon.pid()) - cpu;
    sleepFor(100 * kMs);
    EXPECT_NEAR(static_cast<double>(memoryOf(daemon.pid()).privateKb), static_cast<double>(memory),
                32);
    expectHearing();
    expectNoise(app->takeHeard().left);
    EXPECT_EQ(xruns(), 0);
    bothOff();
    const int overruns = said(kOverrun);
    const int refused = said(kStranger);
    printf("flood: %d uevents in %.2f s, the daemon used %.2f s, %d overruns, %d refused\n",
           kUevents, static_cast<double>(time) / kSecond, static_cast<double>(used) / kSecond,
           overruns, refused);
    EXPECT_GT(used, 200 * kMs);  // it read the uevents
    if (!isKernels()) {          // logging each takes longer than sending it
        EXPECT_GT(overruns, 10);
        EXPECT_GT(refused, kUevents / 10);
        EXPECT_LT(refused, kUevents);
    }
}

INSTANTIATE_TEST_SUITE_P(Of, Flood, testing::Bool(), [](const auto& info) {
    return info.param ? "KernelUevents" : "ProcessUevents";
});

}  // namespace
}  // namespace uafd
