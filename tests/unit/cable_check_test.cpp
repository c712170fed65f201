// SPDX-License-Identifier: Apache-2.0
// The check for a plugged cable that the gadget does not notice, tick by tick.
#include <cerrno>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/cable_fixture.h"

namespace uafd {
namespace {

using fake_log::kCableLog;
using namespace cable;

const fake_log::Line kRestartLine = kCableLog.debug(
    "Cable plugged without android_usb subsystem acknowledging the plug. Restart UDC with "
    "property: mtp,adb");
const fake_log::Line kIssueLine = kCableLog.debug("Issue: setprop sys.usb.config mtp,adb\n\n");

class CableCheckTest : public cable::Fixture {
  protected:
    void SetUp() override {
        cable::Fixture::SetUp();
        folder.write("sys.usb.controller", "ff300000.usb\n");
        folder.write("sys.usb.config", "mtp,adb\n");
    }

    // Three ticks that find the fault.
    std::vector<Receive> threeFaults() { return {fault(), fault(), fault()}; }
    Receive fault() { return check("DISCONNECTED", "1"); }

    // How many restarts these ticks cause after a fresh start.
    size_t restartsAfter(std::vector<Receive> ticks) {
        commands.clear();
        run(std::move(ticks));
        return commands.size();
    }
};

TEST_F(CableCheckTest, ThirdFaultInARowRestartsTheController) {
    run({fault(), fault(), fault()});
    EXPECT_EQ((Lines{kTickLine, kTickLine, kTickLine, kRestartLine, kIssueLine}), linesInLoop());
    EXPECT_EQ((Strings{"setprop sys.usb.config mtp,adb\n"}), commands);
    EXPECT_EQ(Messages{}, service.take());
}

TEST_F(CableCheckTest, PersistentFaultRestartsEveryThreeTicks) {
    const size_t restarts[] = {0, 0, 0, 1, 1, 1, 2, 2, 2, 3};
    std::vector<Receive> ticks;
    for (const size_t expected : restarts) {
        EXPECT_EQ(expected, restartsAfter(ticks)) << ticks.size();
        ticks.push_back(fault());
    }
}

TEST_F(CableCheckTest, EachReadingCountsHoldsOrResets) {
    // The reading comes between two faults and a third; keepsCount says that the third still
    // restarts.
    const struct {
        const char* usb;
        const char* plug;
        bool keepsCount;
    } readings[] = {
        {"CONFIGURED", "1", false},    {"CONFIGURED", "0", false},
        {"DISCONNECTED", "0", false},  {"DISCONNECTED", "", false},
        {"DISCONNECTED", "21", false}, {"CONNECTED", "1", true},
        {"CONNECTED", "0", true},      {"", "1", true},
        {"DISCONNECTE", "0", true},    {"CONFIGURE", "1", true},
        {"CONFIGURED2", "1", false},   {"DISCONNECTED2", "0", false},
    };
    for (const auto& [usb, plug, keepsCount] : readings)
        EXPECT_EQ(keepsCount ? 1U : 0U,
                  restartsAfter({fault(), fault(), check(usb, plug), fault()}))
            << usb << ' ' << plug;
}

TEST_F(CableCheckTest, CableLineCountsByItsFirstCharacter) {
    const Receive tick = check("DISCONNECTED2", "1x");
    EXPECT_EQ(1U, restartsAfter({tick, tick, tick}));
}

TEST_F(CableCheckTest, EveryReceiveErrorIsATick) {
    std::vector<Receive> ticks = threeFaults();
    ticks[0].error = ENOBUFS;
    ticks[1].error = EINTR;
    EXPECT_EQ(1U, restartsAfter(ticks));
    EXPECT_EQ(
        kCableLog.debug("recvmsg error: <-1:105:No buffer space available> - likely a timeout for "
                        "RK-based SoC\n"),
        linesInLoop()[0]);
}

TEST_F(CableCheckTest, UeventsNeitherCountNorReset) {
    EXPECT_EQ(1U, restartsAfter({fault(), usbState("CONFIGURED"), fault(), usbState("DISCONNECTED"),
                                 usbState("CONNECTED"), fault()}));
    EXPECT_EQ(0U, restartsAfter({fault(), usbState("DISCONNECTED"), fault(),
                                 usbState("DISCONNECTED"), usbState("DISCONNECTED")}));
}

TEST_F(CableCheckTest, CheckNeverTouchesTheConfiguredFlag) {
    run({usbState("CONFIGURED"), fault(), usbState("CONFIGURED"), check("CONFIGURED", "1"),
         usbState("DISCONNECTED"), check("CONFIGURED", "1"), usbState("DISCONNECTED")});
    EXPECT_EQ((Messages{{0, 1}, {0, 0}}), service.take());
}

TEST_F(CableCheckTest, CountRestartsWithTheLoop) {
    EXPECT_EQ(0U, restartsAfter({fault(), fault()}));
    EXPECT_EQ(0U, restartsAfter({fault(), fault()}));
}

// The file is missing or empty between two faults and a third.
TEST_F(CableCheckTest, ReadingThatFailsHoldsTheCountAndIsNotLogged) {
    for (const std::string name : {"/usb", "/plug"}) {
        for (const bool missing : {true, false}) {
            setUsb("DISCONNECTED\n");
            Receive failing = check("CONFIGURED", "0");
            failing.before = [this, name, missing] {
                setUsb("CONFIGURED\n");
                setPlug("0\n");
                if (missing)
                    std::filesystem::remove(folder.path() + name);
                else
                    folder.write(name, "");
            };
            fake_log::clear();
            EXPECT_EQ(1U, restartsAfter({fault(), fault(), failing, fault()})) << name << missing;
            EXPECT_EQ((Lines{kTickLine, kTickLine, kTickLine, kTickLine, kRestartLine, kIssueLine}),
                      linesInLoop());
        }
    }
}

// The check is made every second, for months.
TEST_F(CableCheckTest, EveryOpenedFileIsClosed) {
    const auto descriptors = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    Receive noUsb = fault(), noPlug = fault();
    noUsb.before = [this] { std::filesystem::remove(folder.path() + "/usb"); };
    noPlug.before = [this] { std::filesystem::remove(folder.path() + "/plug"); };
    const auto before = descriptors();
    run({fault(), noUsb, fault(), noPlug, fault(), check("CONFIGURED", "1"),
         usbState("CONFIGURED")});
    EXPECT_EQ(before, descriptors());
}

TEST_F(CableCheckTest, UnsetConfigurationIsIssuedEmpty) {
    std::filesystem::remove(folder.path() + "/sys.usb.config");
    run(threeFaults());
    EXPECT_EQ((Strings{"setprop sys.usb.config \n"}), commands);
    EXPECT_EQ(1, fake_log::count(kCableLog.debug(
                     "Cable plugged without android_usb subsystem acknowledging the "
                     "plug. Restart UDC with property: ")));
    EXPECT_EQ(1, fake_log::count(kCableLog.debug("Issue: setprop sys.usb.config \n\n")));
}

TEST_F(CableCheckTest, LongestConfigurationIsIssuedWhole) {
    const std::string longest = "aZ09_,.:+-" + std::string(81, 'v');
    folder.write("sys.usb.config", longest + "\n");
    run(threeFaults());
    EXPECT_EQ((Strings{"setprop sys.usb.config " + longest + "\n"}), commands);
}

TEST_F(CableCheckTest, ConfigurationThatAShellWouldActUponIsLoggedButNotIssued) {
    for (const char unsafe : std::string(" ;&|$`'\"\\<>(){}[]*?!#~=%@^/\t\x7F\xC3")) {
        const std::string value = std::string("adb") + unsafe + "reboot";
        folder.write("sys.usb.config", value + "\n");
        fake_log::clear();
        EXPECT_EQ(0U, restartsAfter(threeFaults())) << value;
        EXPECT_EQ(
            (Lines{kTickLine, kTickLine, kTickLine,
                   kCableLog.debug(
                       "Cable plugged without android_usb subsystem acknowledging the plug. "
                       "Restart UDC with property: " +
                       value),
                   kCableLog.debug("Issue: setprop sys.usb.config " + value + "\n\n"),
                   kCableLog.error("not issued: the value holds characters that a shell could act "
                                   "upon\n")}),
            linesInLoop());
    }
}

}  // namespace
}  // namespace uafd
