// SPDX-License-Identifier: Apache-2.0
// The cable: the gadget's uevents become messages, other uevents do not, and a gadget that does not
// notice its cable is restarted.
#include <unistd.h>

#include <gmock/gmock.h>

#include "tests/board/board_case.h"

namespace uafd {
namespace {

using board::kMs;
using board::kSecond;
using board::Message;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr Message kConnected{0, 1};
constexpr Message kDisconnected{0, 0};
constexpr char kController[] = "/run/properties/sys.usb.controller";
constexpr char kConfig[] = "/run/properties/sys.usb.config";
constexpr char kRestart[] =
    "Cable plugged without android_usb subsystem acknowledging the plug. Restart UDC with "
    "property: uac";

class Cable : public BoardCase {
  protected:
    void SetUp() override {
        board::put(kController, "ff300000.usb");
        board::put(kConfig, "uac");
    }

    void startConfigured() {
        start();
        ASSERT_TRUE(app->waitForMessages(5));
        forget();
    }

    void forget() {
        logMark = daemon.mark();
        messageMark = app->messages().size();
    }
    void after(const std::string& command) {
        forget();
        host.command(command);
        board::sleepFor(100 * kMs);
    }
    int said(const std::string& text) { return daemon.count(text, logMark); }
    std::vector<Message> told() const {
        std::vector<Message> states;
        for (const Message& message : app->messageValues(messageMark)) {
            if (message.type == 0) {
                states.push_back(message);
            }
        }
        return states;
    }

  private:
    size_t logMark = 0;
    size_t messageMark = 0;
};

TEST_F(Cable, TellsTheAppOfAConfiguredStart) {
    start();
    ASSERT_TRUE(app->waitForMessages(5));
    EXPECT_THAT(told(), ElementsAre(kConnected));
}

TEST_F(Cable, TellsTheAppNothingOfADisconnectedStart) {
    host.command("cable 0");
    host.command("usb_state DISCONNECTED quiet");
    start();
    ASSERT_TRUE(app->waitForMessages(4));
    board::sleepFor(kSecond);
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_EQ(daemon.count("Initial USB state is DISCONNECTED"), 1);
    after("usb_state DISCONNECTED");
    EXPECT_THAT(told(), IsEmpty());
    after("usb_state CONFIGURED");
    EXPECT_THAT(told(), ElementsAre(kConnected));
}

TEST_F(Cable, TellsTheAppOfEdgesOnly) {
    startConfigured();
    after("usb_state CONFIGURED");
    EXPECT_THAT(told(), IsEmpty());
    after("usb_state DISCONNECTED");
    EXPECT_THAT(told(), ElementsAre(kDisconnected));
    after("usb_state DISCONNECTED");
    EXPECT_THAT(told(), IsEmpty());
    after("usb_state CONNECTED");
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_EQ(said("subsystem: android_usb, action: 3, usbstate=CONNECTED"), 1);
    after("usb_state CONFIGURED");
    EXPECT_THAT(told(), ElementsAre(kConnected));
    EXPECT_EQ(said("subsystem: android_usb, action: 3, usbstate=CONFIGURED"), 1);
}

TEST_F(Cable, SeesThePlugPulledAndPutBack) {
    startConfigured();
    host.command("speaker on");
    host.command("mic on");
    ASSERT_TRUE(hasThreads(board::kStreamingThreads));
    after("unplug");
    EXPECT_THAT(told(), ElementsAre(kDisconnected));
    EXPECT_TRUE(hasThreads(board::kIdleThreads));
    board::sleepFor(5 * kSecond);
    EXPECT_EQ(said(kRestart), 0);
    after("plug");
    EXPECT_THAT(told(), ElementsAre(kConnected));
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Cable, SaysWhatItGetsOfOtherActionsAndOfNoState) {
    startConfigured();
    after("uevent change");
    EXPECT_EQ(said("usb state is NULL"), 1);
    after("uevent add USB_STATE=DISCONNECTED");
    EXPECT_EQ(said("subsystem: android_usb, action: 1"), 1);
    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(Cable, SaysNothingOfOtherSubsystems) {
    startConfigured();
    const size_t before = daemon.mark();
    host.command("foreign change USB_STATE=DISCONNECTED");
    board::sleepFor(100 * kMs);
    for (size_t i = before; i < daemon.log().size(); ++i) {
        EXPECT_THAT(daemon.log()[i].text, testing::HasSubstr("likely a timeout"));
    }
    EXPECT_THAT(told(), IsEmpty());
}

// ---- The fault: plugged, but the gadget does not notice ----------------------------------------

TEST_F(Cable, RestartsAGadgetThatStaysDisconnectedWhilePlugged) {
    startConfigured();
    after("usb_state DISCONNECTED");
    ASSERT_TRUE(daemon.waitForLog(kRestart, 0, 1, 6 * kSecond));
    EXPECT_EQ(said("Issue: setprop sys.usb.config uac"), 1);
    ASSERT_TRUE(board::waitFor([this] { return told().size() == 2; }));
    EXPECT_THAT(told(), ElementsAre(kDisconnected, kConnected));
    ASSERT_TRUE(settle());
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), 1);
    board::sleepFor(5 * kSecond);
    EXPECT_EQ(said(kRestart), 1);
    EXPECT_EQ(findDamage(), "");
}

TEST_F(Cable, RestartsAgainEveryThirdTickWhileTheFaultLasts) {
    startConfigured();
    host.command("fault enumerate 1 times=2");
    after("usb_state DISCONNECTED");
    ASSERT_TRUE(daemon.waitForLog(kRestart, 0, 3, 15 * kSecond));
    ASSERT_TRUE(board::waitFor([this] { return told().size() == 2; }));
    std::vector<board::Ns> restarts;
    for (const board::LogLine& line : daemon.log()) {
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
    board::sleepFor(6 * kSecond);
    EXPECT_EQ(said(kRestart), 0);
}

TEST_F(Cable, RestartsNothingOnAnotherBoard) {
    board::put(kController, "fe800000.usb");
    startConfigured();
    after("usb_state DISCONNECTED");
    board::sleepFor(6 * kSecond);
    EXPECT_EQ(said(kRestart), 0);
    EXPECT_THAT(told(), ElementsAre(kDisconnected));
}

TEST_F(Cable, RunsNoCommandThatIsHiddenInTheProperty) {
    startConfigured();
    unlink("/tmp/hidden");
    board::put(kConfig, "uac; touch /tmp/hidden");
    after("usb_state DISCONNECTED");
    ASSERT_TRUE(daemon.waitForLog("Issue: setprop sys.usb.config uac; touch /tmp/hidden", 0, 1,
                                  6 * kSecond));
    board::sleepFor(500 * kMs);
    EXPECT_FALSE(board::exists("/tmp/hidden"));
}

}  // namespace
}  // namespace uafd
