// SPDX-License-Identifier: Apache-2.0
// The daemon over the wire: whatever becomes of cable, bus, host and drivers, whichever streams are
// on, the app is told of it and the daemon is whole afterwards.
#include <cerrno>
#include <cstdint>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/kit/files.h"
#include "board/kit/usb/host_mixer.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/usb_host.h"
#include "tests/board/usb_daemon/wire_case.h"

namespace uafd {
namespace {

using board::Direction;
using board::kMicDirection;
using board::kMs;
using board::kSpeakerDirection;
using board::put;
using board::UsbHost;
using board::WireBoard;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr board::Ns kHandled = 100 * kMs;  // by the daemon, a stop of both channels included
constexpr char kConfiguration[] = "/sys/bus/usb/devices/1-1/bConfigurationValue";
constexpr char kPullUp[] = "/sys/class/udc/ff300000.usb/soft_connect";
constexpr Direction kDirections[] = {kSpeakerDirection, kMicDirection};

// ---- What happens ------------------------------------------------------------------------------

void pull(WireBoard& board) {
    board.host.unplug();
}
void plug(WireBoard& board) {
    board.host.plug();
}

// The device takes a disturbance for a reset; the host's hub shuts the port.
void disturb(WireBoard& board) {
    board.wire.reset();
    ASSERT_TRUE(UsbHost::waitForCard(false));
}

void reset(WireBoard& /*board*/) {
    ASSERT_EQ(board::UsbDevice().reset(), 0);
}

void suspend(WireBoard& board) {
    board.wire.suspend();
}
void resume(WireBoard& board) {
    board.wire.resume();
}

void leaveConfiguration(WireBoard& /*board*/) {
    put(kConfiguration, "0");
}
void enterConfiguration(WireBoard& /*board*/) {
    put(kConfiguration, "1");
}

void unbind(WireBoard& board) {
    board.gadget.unbind();
}
void bind(WireBoard& board) {
    board.gadget.bind();
}

void releasePullUp(WireBoard& /*board*/) {
    put(kPullUp, "disconnect");
}
void applyPullUp(WireBoard& /*board*/) {
    put(kPullUp, "connect");
}

void unloadController(WireBoard& board) {
    board.unloadController();
}
void loadController(WireBoard& board) {
    board.loadController();
}

void nothing(WireBoard& /*board*/) {}

struct LinkEvent {
    const char* name;
    void (*begin)(WireBoard& board);
    void (*end)(WireBoard& board);  // the host finds its way back
    bool endsStreams;               // else those that are on go off, and on again
    bool losesHost;                 // the daemon does, and finds it again
    bool losesCard;                 // the function is unbound, and bound again
    bool enumerates;  // the host does: it tries each volume a step below, where that was 0
};

constexpr LinkEvent kLinkEvents[] = {
    {"Unplug", pull, plug, true, true, false, true},
    {"Disturbance", disturb, nothing, true, true, false, true},
    {"Reset", reset, nothing, true, true, false, true},
    {"Suspend", suspend, resume, false, false, false, false},
    {"Configuration", leaveConfiguration, enterConfiguration, true, false, false, true},
    {"Unbind", unbind, bind, true, true, true, true},
    {"PullUp", releasePullUp, applyPullUp, true, true, false, true},
    {"Controller", unloadController, loadController, true, true, true, true},
};

void PrintTo(const LinkEvent& event, std::ostream* out) {
    *out << event.name;
}

// ---- In each state of the channels -------------------------------------------------------------

class Link : public WireCase, public testing::WithParamInterface<std::tuple<LinkEvent, Streams>> {
  protected:
    std::vector<uint32_t> statesWanted() const {
        return event.losesHost ? std::vector<uint32_t>{0, 1} : std::vector<uint32_t>{};
    }
    // None of a stream that was off before.
    std::vector<uint32_t> ifOn(const Direction& direction, std::vector<uint32_t> states) const {
        return streams.has(direction) ? std::move(states) : std::vector<uint32_t>{};
    }
    // Whatever began, both streams are off by now.
    void expectNoStream() {
        EXPECT_TRUE(hasThreads(board::kIdleThreads));
        for (const Direction& direction : kDirections) {
            EXPECT_THAT(told(direction.channel), ElementsAreArray(ifOn(direction, {0})))
                << direction.name;
        }
    }
    std::vector<uint32_t> volumesWanted() const {
        return event.enumerates ? std::vector<uint32_t>{0xFF00, 0} : std::vector<uint32_t>{};
    }

    const LinkEvent event = std::get<0>(GetParam());
    const Streams streams = std::get<1>(GetParam());
};

TEST_P(Link, LeavesTheDaemonWhole) {
    switchOn(streams);
    forget();
    event.begin(*this);
    board::sleepFor(kHandled);
    expectNoStream();
    event.end(*this);
    ASSERT_TRUE(UsbHost::waitForCard());
    board::sleepFor(kHandled);
    EXPECT_THAT(told(kUsbState), ElementsAreArray(statesWanted()));
    for (const Direction& direction : kDirections) {
        SCOPED_TRACE(direction.name);
        EXPECT_THAT(
            told(direction.channel),
            ElementsAreArray(event.endsStreams ? ifOn(direction, {0}) : ifOn(direction, {0, 1})));
        EXPECT_THAT(told(volumeOf(direction)), ElementsAreArray(volumesWanted()));
        EXPECT_THAT(told(muteOf(direction)), IsEmpty());
    }
    const int bindings = event.losesCard ? 1 : 0;
    EXPECT_EQ(said("UAC Vexa is disabled, bindcnt=0, bindbad=0"), bindings);
    EXPECT_EQ(said("UAC Vexa is enabled, using hw:1"), bindings);
    EXPECT_TRUE(hasThreads((event.endsStreams ? kNoStream : streams).threads()));
    expectWhole();
}

INSTANTIATE_TEST_SUITE_P(UsbDaemon, Link,
                         testing::Combine(testing::ValuesIn(kLinkEvents),
                                          testing::ValuesIn(kEveryStreams)),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).name) + "_" +
                                    std::get<1>(info.param).name;
                         });

class Daemon : public WireCase {};

// The cable detector says that there is a host, and the gadget does not hear it: its configuration
// is set once more.
TEST_F(Daemon, RestartsAGadgetThatDoesNotHearItsHost) {
    forget();
    put(kPullUp, "disconnect");
    ASSERT_TRUE(UsbHost::waitForCard(false));
    ASSERT_TRUE(daemon.waitForLog(
        "Cable plugged without android_usb subsystem acknowledging the plug. Restart UDC with "
        "property: uac"));
    ASSERT_TRUE(UsbHost::waitForCard());
    board::sleepFor(kHandled);
    EXPECT_THAT(told(kUsbState), ElementsAre(0, 1));
    expectWhole();
}

// Another daemon takes over in mid-stream, once the first has gone.
TEST_F(Daemon, FindsWhatRunsAtItsStart) {
    switchOn(kBothStreams);
    daemon.stop();
    forget();
    daemon.start();
    ASSERT_TRUE(waitUntilTold(kUsbState, 1));
    ASSERT_TRUE(hasThreads(board::kStreamingThreads));
    EXPECT_THAT(told(kUsbState), ElementsAre(1));
    for (const Direction& direction : kDirections) {
        EXPECT_THAT(told(direction.channel), ElementsAre(1));
        EXPECT_THAT(told(volumeOf(direction)), ElementsAre(0));
        EXPECT_THAT(told(muteOf(direction)), ElementsAre(0));
    }
    expectWhole();
}

// A daemon, ended in mid-stream, and its gadget were there; the driver's module went and came.
class ReloadedDriver {
  protected:
    explicit ReloadedDriver(const Streams& streams) {
        {
            WireBoard board(caseName() + ".before");
            board.start(false);
            if (streams.speaker) {
                board.host.play(board::noise);
            }
            if (streams.mic) {
                board.host.record();
            }
            EXPECT_TRUE(board.hasThreads(streams.threads()));
            EXPECT_EQ(board::unloadModule("usb_f_vexa"), EWOULDBLOCK);
            EXPECT_TRUE(board.hasThreads(streams.threads()));
            board.daemon.stop();
            EXPECT_EQ(board::unloadModule("usb_f_vexa"),
                      EWOULDBLOCK);  // the gadget holds it as well
        }
        EXPECT_EQ(board::unloadModule("usb_f_vexa"), 0);
        EXPECT_FALSE(board::exists("/sys/class/android_usb"));
    }
};

class DriverModule : ReloadedDriver, public WireCase, public testing::WithParamInterface<Streams> {
  protected:
    DriverModule() : ReloadedDriver(GetParam()) {}
};

TEST_P(DriverModule, ServesTheNextDaemon) {
    expectWhole();
}

INSTANTIATE_TEST_SUITE_P(UsbDaemon, DriverModule, testing::ValuesIn(kEveryStreams),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace uafd
