// SPDX-License-Identifier: Apache-2.0
// The cable's fault: plugged, but the gadget stays DISCONNECTED. Three checks in a row, a second
// apart, restart the gadget; if the fault ends before the third, the count starts again.
#include <gmock/gmock.h>

#include "tests/board/scenarios/scenario.h"

namespace uafd {
namespace {

using board::kMs;
using board::kSecond;
using board::Message;

constexpr char kController[] = "/run/properties/sys.usb.controller";
constexpr char kConfig[] = "/run/properties/sys.usb.config";
constexpr char kLook[] =
    "recvmsg error: <-1:11:Resource temporarily unavailable> - likely a timeout for RK-based SoC";
constexpr char kRestart[] =
    "Cable plugged without android_usb subsystem acknowledging the plug. Restart UDC with "
    "property: uac";

class CableFault : public Scenario {
  protected:
    void SetUp() override {
        board::put(kController, "ff300000.usb");
        board::put(kConfig, "uac");
        start(false);
        ASSERT_TRUE(app->waitForMessages(5));
    }

    // Sets the gadget's state file alone: a uevent would reset the count.
    void gadgetIs(const char* word) { host.command(std::string("usb_state ") + word + " quiet"); }
    void looks(int count) {
        const size_t mark = daemon.mark();
        board::sleepFor((count - 1) * kSecond);
        ASSERT_TRUE(daemon.waitForLog(kLook, mark, count, 2 * kSecond));
        board::sleepFor(10 * kMs);  // what it does about it
    }
    int restarts() { return daemon.count(kRestart); }
};

TEST_F(CableFault, ThatEndsAfterTwoLooksRestartsNothing) {
    for (int i = 0; i < 3; ++i) {
        gadgetIs("DISCONNECTED");
        looks(2);
        gadgetIs("CONFIGURED");
        looks(1);
    }
    EXPECT_EQ(restarts(), 0);
    gadgetIs("DISCONNECTED");
    looks(3);
    EXPECT_EQ(restarts(), 1);
    EXPECT_EQ(findDamage(), "");
}

TEST_F(CableFault, EndsWithTheCablePulled) {
    for (int i = 0; i < 3; ++i) {
        gadgetIs("DISCONNECTED");
        looks(2);
        host.command("cable 0");
        looks(1);
        host.command("cable 1");
    }
    EXPECT_EQ(restarts(), 0);
    looks(3);
    EXPECT_EQ(restarts(), 1);
    EXPECT_EQ(findDamage(), "");
}

TEST_F(CableFault, IsNeitherEndedNorProlongedByAStateInBetween) {
    gadgetIs("DISCONNECTED");
    looks(2);
    gadgetIs("CONNECTED");
    looks(5);
    EXPECT_EQ(restarts(), 0);
    gadgetIs("DISCONNECTED");
    looks(1);
    EXPECT_EQ(restarts(), 1);
    EXPECT_EQ(findDamage(), "");
}

// The restart takes the card away from both channels and brings it back.
TEST_F(CableFault, InMidStreamEndsBothStreamsAndLetsThemStartAgain) {
    bothOn();
    const size_t messages = app->messages().size();
    host.command("usb_state DISCONNECTED");
    ASSERT_TRUE(daemon.waitForLog(kRestart));
    ASSERT_TRUE(app->waitForMessages(messages + 4));
    EXPECT_THAT(app->messageValues(messages),
                testing::UnorderedElementsAre(Message{0, 0}, Message{kSpeaker, 0}, Message{kMic, 0},
                                              Message{0, 1}));
    EXPECT_EQ(app->messageValues(messages).front(), (Message{0, 0}));
    EXPECT_TRUE(hasThreads(board::kIdleThreads));
    bothOn();
    EXPECT_EQ(findDamage(), "");
}

// A gadget that cannot be helped is restarted at every third check, as long as the fault lasts.
TEST_F(CableFault, WithoutRecoveryRestartsAgainAndAgainAndWearsNothingOut) {
    host.command("fault enumerate 1 times=0");
    host.command("usb_state DISCONNECTED");
    board::sleepFor(40 * kSecond);
    EXPECT_GE(restarts(), 9);
    EXPECT_LE(restarts(), 13);
    expectNobodyBusy();
    host.command("fault clear enumerate");
    board::sleepFor(5 * kSecond);
    EXPECT_EQ(app->messageValues().back(), (Message{0, 1}));
    EXPECT_EQ(board::contents("/proc/" + std::to_string(daemon.pid()) + "/task/" +
                              std::to_string(daemon.pid()) + "/children"),
              "");
    EXPECT_EQ(findDamage(), "");
}

}  // namespace
}  // namespace uafd
