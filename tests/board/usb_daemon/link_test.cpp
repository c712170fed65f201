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

using namespace board;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr Ns kHandled = 100 * kMs;  // by the daemon, a stop of both channels included
constexpr char kConfiguration[] = "/sys/bus/usb/devices/1-1/bConfigurationValue";
constexpr char kPullUp[] = "/sys/class/udc/ff300000.usb/soft_connect";
constexpr Direction kDirections[] = {kSpeakerDirection, kMicDirection};

// ---- What happens ------------------------------------------------------------------------------

struct LinkEvent {
    const char* name;
    void (*begin)(WireBoard& board);
    void (*end)(WireBoard& board);  // the host finds its way back
    bool endsStreams;               // else those that are on go off, and on again
    bool losesHost;                 // the daemon does, and finds it again
    bool losesCard;                 // the function is unbound, and bound again
    bool enumerates;  // the host does: it tries each volume a step below, where that was 0
};

// The device takes a disturbance for a reset; the host's hub shuts the port.
void disturb(WireBoard& board) {
    board.wire.reset();
    ASSERT_TRUE(UsbHost::waitForCard(false));
}

constexpr LinkEvent kLinkEvents[] = {
    {"Unplug", [](WireBoard& board) { board.host.unplug(); },
     [](WireBoard& board) { board.host.plug(); }, true, true, false, true},
    {"Disturbance", disturb, [](WireBoard&) {}, true, true, false, true},
    {"Reset", [](WireBoard&) { ASSERT_EQ(UsbDevice().reset(), 0); }, [](WireBoard&) {}, true, true,
     false, true},
    {"Suspend", [](WireBoard& board) { board.wire.suspend(); },
     [](WireBoard& board) { board.wire.resume(); }, false, false, false, false},
    {"Configuration", [](WireBoard&) { put(kConfiguration, "0"); },
     [](WireBoard&) { put(kConfiguration, "1"); }, true, false, false, true},
    {"Unbind", [](WireBoard& board) { board.gadget.unbind(); },
     [](WireBoard& board) { board.gadget.bind(); }, true, true, true, true},
    {"PullUp", [](WireBoard&) { put(kPullUp, "disconnect"); },
     [](WireBoard&) { put(kPullUp, "connect"); }, true, true, false, true},
    {"Controller", [](WireBoard& board) { board.unloadController(); },
     [](WireBoard& board) { board.loadController(); }, true, true, true, true},
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
        EXPECT_TRUE(hasThreads(kIdleThreads));
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
    sleepFor(kHandled);
    expectNoStream();
    event.end(*this);
    ASSERT_TRUE(UsbHost::waitForCard());
    sleepFor(kHandled);
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
    sleepFor(kHandled);
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
    ASSERT_TRUE(hasThreads(kStreamingThreads));
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
                board.host.play(noise);
            }
            if (streams.mic) {
                board.host.record();
            }
            EXPECT_TRUE(board.hasThreads(streams.threads()));
            EXPECT_EQ(unloadModule("usb_f_vexa"), EWOULDBLOCK);
            EXPECT_TRUE(board.hasThreads(streams.threads()));
            board.daemon.stop();
            EXPECT_EQ(unloadModule("usb_f_vexa"),
                      EWOULDBLOCK);  // the gadget holds it as well
        }
        EXPECT_EQ(unloadModule("usb_f_vexa"), 0);
        EXPECT_FALSE(exists("/sys/class/android_usb"));
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
