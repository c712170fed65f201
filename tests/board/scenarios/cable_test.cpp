// SPDX-License-Identifier: Apache-2.0
// The cable: the gadget's uevents become messages, other uevents do not, and a gadget that does not
// notice its cable is restarted: three checks in a row, a second apart, find the fault; if it ends
// before the third, the count starts again.
#include <unistd.h>

#include <gmock/gmock.h>

#include "tests/board/board_case.h"

namespace uafd {
namespace {

using namespace board;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr Message kConnected{0, 1};
constexpr Message kDisconnected{0, 0};
constexpr char kController[] = "/run/properties/sys.usb.controller";
constexpr char kConfig[] = "/run/properties/sys.usb.config";
constexpr char kCheck[] =
    "recvmsg error: <-1:11:Resource temporarily unavailable> - likely a timeout for RK-based SoC";
constexpr char kRestart[] =
    "Cable plugged without android_usb subsystem acknowledging the plug. Restart UDC with "
    "property: uac";

class Cable : public BoardCase {
  protected:
    void SetUp() override {
        put(kController, "ff300000.usb");
        put(kConfig, "uac");
    }

    void startConfigured() {
        start();
        ASSERT_TRUE(app->waitForMessages(5));
        look();
    }

    void after(const std::string& command) {
        look();
        host.command(command);
        sleepFor(100 * kMs);
    }
    std::vector<Message> states() const {
        std::vector<Message> states;
        for (const Message& message : told()) {
            if (message.type == 0) {
                states.push_back(message);
            }
        }
        return states;
    }
};

TEST_F(Cable, TellsTheAppOfAConfiguredStart) {
    start();
    ASSERT_TRUE(app->waitForMessages(5));
    EXPECT_THAT(states(), ElementsAre(kConnected));
}

TEST_F(Cable, TellsTheAppNothingOfADisconnectedStart) {
    host.command("cable 0");
    host.command("usb_state DISCONNECTED quiet");
    start();
    ASSERT_TRUE(app->waitForMessages(4));
    sleepFor(kSecond);
    EXPECT_THAT(states(), IsEmpty());
    EXPECT_EQ(daemon.count("Initial USB state is DISCONNECTED"), 1);
    after("usb_state DISCONNECTED");
    EXPECT_THAT(states(), IsEmpty());
    after("usb_state CONFIGURED");
    EXPECT_THAT(states(), ElementsAre(kConnected));
}

TEST_F(Cable, TellsTheAppOfEdgesOnly) {
    startConfigured();
    after("usb_state CONFIGURED");
    EXPECT_THAT(states(), IsEmpty());
    after("usb_state DISCONNECTED");
    EXPECT_THAT(states(), ElementsAre(kDisconnected));
    after("usb_state DISCONNECTED");
    EXPECT_THAT(states(), IsEmpty());
    after("usb_state CONNECTED");
    EXPECT_THAT(states(), IsEmpty());
    EXPECT_EQ(said("subsystem: android_usb, action: 3, usbstate=CONNECTED"), 1);
    after("usb_state CONFIGURED");
    EXPECT_THAT(states(), ElementsAre(kConnected));
    EXPECT_EQ(said("subsystem: android_usb, action: 3, usbstate=CONFIGURED"), 1);
}

TEST_F(Cable, SeesThePlugPulledAndPutBack) {
    startConfigured();
    bothOn();
    after("unplug");
    EXPECT_THAT(states(), ElementsAre(kDisconnected));
    EXPECT_TRUE(hasThreads(kIdleThreads));
    sleepFor(5 * kSecond);
    EXPECT_EQ(said(kRestart), 0);
    after("plug");
    EXPECT_THAT(states(), ElementsAre(kConnected));
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Cable, SaysWhatItGetsOfOtherActionsAndOfNoState) {
    startConfigured();
    after("uevent change");
    EXPECT_EQ(said("usb state is NULL"), 1);
    after("uevent add USB_STATE=DISCONNECTED");
    EXPECT_EQ(said("subsystem: android_usb, action: 1"), 1);
    EXPECT_THAT(states(), IsEmpty());
}

TEST_F(Cable, SaysNothingOfOtherSubsystems) {
    startConfigured();
    const size_t before = daemon.mark();
    host.command("foreign change USB_STATE=DISCONNECTED");
    sleepFor(100 * kMs);
    for (size_t i = before; i < daemon.log().size(); ++i) {
        EXPECT_THAT(daemon.log()[i].text, testing::HasSubstr("likely a timeout"));
    }
    EXPECT_THAT(states(), IsEmpty());
}

// ---- The fault: plugged, but the gadget does not notice ----------------------------------------

TEST_F(Cable, RestartsAGadgetThatStaysDisconnectedWhilePlugged) {
    startConfigured();
    after("usb_state DISCONNECTED");
    ASSERT_TRUE(daemon.waitForLog(kRestart, 0, 1, 6 * kSecond));
    EXPECT_EQ(said("Issue: setprop sys.usb.config uac"), 1);
    ASSERT_TRUE(waitFor([this] { return states().size() == 2; }));
    EXPECT_THAT(states(), ElementsAre(kDisconnected, kConnected));
    ASSERT_TRUE(settle());
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 1);
    sleepFor(5 * kSecond);
    EXPECT_EQ(said(kRestart), 1);
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Cable, RestartsAgainEveryThirdTickWhileTheFaultLasts) {
    startConfigured();
    host.command("fault enumerate 1 times=2");
    after("usb_state DISCONNECTED");
    ASSERT_TRUE(daemon.waitForLog(kRestart, 0, 3, 15 * kSecond));
    ASSERT_TRUE(waitFor([this] { return states().size() == 2; }));
    std::vector<Ns> restarts;
    for (const LogLine& line : daemon.log()) {
        if (line.text == kRestart) {
            restarts.push_back(line.at);
        }
    }
    for (size_t i = 1; i < restarts.size(); ++i) {
        EXPECT_GE(restarts[i] - restarts[i - 1], 29 * kSecond / 10);
        EXPECT_LE(restarts[i] - restarts[i - 1], 45 * kSecond / 10);
    }
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Cable, RestartsNothingWhileUnplugged) {
    startConfigured();
    host.command("cable 0");
    after("usb_state DISCONNECTED");
    sleepFor(6 * kSecond);
    EXPECT_EQ(said(kRestart), 0);
}

TEST_F(Cable, RestartsNothingOnAnotherBoard) {
    put(kController, "fe800000.usb");
    startConfigured();
    after("usb_state DISCONNECTED");
    sleepFor(6 * kSecond);
    EXPECT_EQ(said(kRestart), 0);
    EXPECT_THAT(states(), ElementsAre(kDisconnected));
}

TEST_F(Cable, RunsNoCommandThatIsHiddenInTheProperty) {
    startConfigured();
    unlink("/tmp/hidden");
    put(kConfig, "uac; touch /tmp/hidden");
    after("usb_state DISCONNECTED");
    ASSERT_TRUE(daemon.waitForLog("Issue: setprop sys.usb.config uac; touch /tmp/hidden", 0, 1,
                                  6 * kSecond));
    sleepFor(500 * kMs);
    EXPECT_FALSE(exists("/tmp/hidden"));
}

class CableFault : public Scenario {
  protected:
    void SetUp() override {
        put(kController, "ff300000.usb");
        put(kConfig, "uac");
        start(false);
        ASSERT_TRUE(app->waitForMessages(5));
    }

    // Sets the gadget's state file alone: a uevent would reset the count.
    void gadgetIs(const char* word) { host.command(std::string("usb_state ") + word + " quiet"); }
    void looks(int count) {
        const size_t mark = daemon.mark();
        sleepFor((count - 1) * kSecond);
        ASSERT_TRUE(daemon.waitForLog(kCheck, mark, count, 2 * kSecond));
        sleepFor(10 * kMs);  // what it does about it
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
    EXPECT_TRUE(hasThreads(kIdleThreads));
    bothOn();
}

// A gadget that cannot be helped is restarted at every third check, as long as the fault lasts.
TEST_F(CableFault, WithoutRecoveryRestartsAgainAndAgainAndWearsNothingOut) {
    host.command("fault enumerate 1 times=0");
    host.command("usb_state DISCONNECTED");
    sleepFor(40 * kSecond);
    EXPECT_GE(restarts(), 9);
    EXPECT_LE(restarts(), 13);
    expectNobodyBusy();
    host.command("fault clear enumerate");
    sleepFor(5 * kSecond);
    EXPECT_EQ(app->messageValues().back(), (Message{0, 1}));
    EXPECT_EQ(contents("/proc/" + std::to_string(daemon.pid()) + "/task/" +
                       std::to_string(daemon.pid()) + "/children"),
              "");
}

}  // namespace
}  // namespace uafd
