// SPDX-License-Identifier: Apache-2.0
// The actions of a walk over both ends of the wire.
#include <cerrno>
#include <stdexcept>

#include "board/kit/files.h"
#include "board/kit/usb/kernel_module.h"
#include "board/kit/usb/usb_host.h"
#include "tests/board/walk/app_actions.h"
#include "tests/board/walk/wire_walk.h"

namespace uafd {
namespace {

using board::kMs;
using board::put;
using board::UsbHost;

constexpr char kDetector[] = "/sys/module/usb_board/parameters/plugged";
constexpr char kConfiguration[] = "/sys/bus/usb/devices/1-1/bConfigurationValue";
constexpr char kPullUp[] = "/sys/class/udc/ff300000.usb/soft_connect";

void command(WireWalk& walk, const std::string& text) {
    walk.attempt(text, [&] { walk.wired.wire.command(text); });
}

// Any isochronous endpoint: of a stream, or of the feedback.
std::string endpoint(WireWalk& walk) {
    return pick(walk, {"ep1out", "ep2in", "ep3in"});
}

// Ends something and, in three of four cases, brings it back after a random time; half of those
// wait until the host has its card. What had ended before is brought back as well.
void interrupt(WireWalk& walk, const std::string& end, const std::function<void()>& ends,
               const std::string& begin, const std::function<void()>& begins) {
    walk.attempt(end, ends);
    if (walk.random.below(4) != 0) {
        board::sleepFor(walk.random.below(400) * kMs);
        walk.attempt(begin, begins);
        if (walk.random.flip()) {
            UsbHost::waitForCard();
        }
    }
}

void interrupt(WireWalk& walk, const std::string& end, const std::string& begin) {
    const auto doing = [&walk](const std::string& text) {
        return [&walk, text] { walk.wired.wire.command(text); };
    };
    interrupt(walk, end, doing(end), begin, doing(begin));
}

// ---- Host --------------------------------------------------------------------------------------

void switchStream(WireWalk& walk) {
    walk.switchStream(walk.direction(), walk.random.below(3) != 0);
}

void switchBothFast(WireWalk& walk) {
    for (int64_t i = 2 + walk.random.below(4); i > 0; --i) {
        switchStream(walk);
        board::sleepFor(walk.random.below(25) * kMs);
    }
}

void moveVolume(WireWalk& walk) {
    const board::Direction direction = walk.direction();
    const int volume = static_cast<int>(walk.random.below(101)) * -256;
    walk.attemptOnHost(direction.name + std::string(" at ") + std::to_string(volume),
                       [&] { walk.wired.host.setVolume(direction, volume); });
}

void moveMute(WireWalk& walk) {
    const board::Direction direction = walk.direction();
    const bool mute = walk.random.flip();
    walk.attemptOnHost(direction.name + std::string(mute ? " muted" : " unmuted"),
                       [&] { walk.wired.host.setMute(direction, mute); });
}

void resetDevice(WireWalk& walk) {
    walk.attemptOnHost("reset", [] {
        if (board::UsbDevice().reset() != 0) {
            board::fail("reset");
        }
    });
}

void leaveConfiguration(WireWalk& walk) {
    interrupt(
        walk, "configuration 0", [] { put(kConfiguration, "0"); }, "configuration 1",
        [] { put(kConfiguration, "1"); });
}

void changeClock(WireWalk& walk) {
    command(walk, "ppb " + std::to_string(walk.random.below(2000001) - 1000000));
}

// ---- Bus ---------------------------------------------------------------------------------------

void pullCable(WireWalk& walk) {
    const auto move = [&walk](bool plug) {
        put(kDetector, plug ? "1" : "0");
        walk.wired.wire.command(plug ? "plug" : "unplug");
    };
    interrupt(
        walk, "unplug", [&] { move(false); }, "plug", [&] { move(true); });
}

void disturbBus(WireWalk& walk) {
    command(walk, "reset");
}

void silenceBus(WireWalk& walk) {
    interrupt(walk, "suspend", "resume");
}

void stopPolling(WireWalk& walk) {
    const std::string poll = "poll " + endpoint(walk);
    interrupt(walk, poll + " 0", poll + " 1");
}

void spoilPackets(WireWalk& walk) {
    command(walk, "fault " + endpoint(walk) + pick(walk, {" lost", " crc", " babble"}) +
                      " times=" + std::to_string(1 + walk.random.below(20)));
}

// ---- Gadget ------------------------------------------------------------------------------------

void unbind(WireWalk& walk) {
    interrupt(
        walk, "unbind", [&walk] { walk.wired.gadget.unbind(); }, "bind",
        [&walk] { walk.wired.gadget.bind(); });
}

void releasePullUp(WireWalk& walk) {
    interrupt(
        walk, "disconnect", [] { put(kPullUp, "disconnect"); }, "connect",
        [] { put(kPullUp, "connect"); });
}

// ---- Modules -----------------------------------------------------------------------------------

// In three of four cases it comes back after a random time, or one that had gone before does.
void changeController(WireWalk& walk) {
    if (walk.hasController()) {
        walk.note("controller unloaded");
        walk.wired.unloadController();
    }
    if (walk.random.below(4) != 0) {
        board::sleepFor(walk.random.below(400) * kMs);
        walk.note("controller loaded");
        walk.wired.loadController();
        if (walk.random.flip()) {
            UsbHost::waitForCard();
        }
    }
}

// Must be refused: the gadget and the daemon use it.
void unloadDriver(WireWalk& walk) {
    walk.note("the driver is unloaded");
    if (board::unloadModule("usb_f_vexa") != EWOULDBLOCK) {
        throw std::runtime_error("a driver in use is unloaded");
    }
}

// As in an update. In three of four cases the gadget is bound again, before the daemon is there or
// after.
void reloadDriver(WireWalk& walk) {
    const auto bind = [&walk] { walk.attempt("bind", [&] { walk.wired.gadget.bind(); }); };
    const int64_t binding = walk.random.below(8);
    walk.restartDaemon([&] {
        walk.note("driver reloaded");
        walk.wired.reloadDriver();
        if (binding < 3) {
            bind();
            board::sleepFor(walk.random.below(400) * kMs);
        }
    });
    if (binding >= 3 && binding < 6) {
        bind();
    }
}

}  // namespace

std::vector<Action<WireWalk>> wireActions() {
    return {
        {"the host switches a stream", 30, switchStream},
        {"the host switches its streams fast", 8, switchBothFast},
        {"the host moves a volume", 6, moveVolume},
        {"the host mutes or unmutes", 4, moveMute},
        {"the host resets the device", 4, resetDevice},
        {"the host leaves the configuration", 3, leaveConfiguration},
        {"the host's clock changes", 4, changeClock},
        {"the cable is pulled", 5, pullCable},
        {"the bus is disturbed", 4, disturbBus},
        {"the bus falls silent", 4, silenceBus},
        {"the host leaves out an endpoint", 4, stopPolling},
        {"packets go wrong", 6, spoilPackets},
        {"the gadget is unbound", 5, unbind},
        {"the gadget lets go of the bus", 3, releasePullUp},
        {"the controllers' module changes", 4, changeController},
        {"the driver's module is to go", 1, unloadDriver},
        {"the driver's module changes", 4, reloadDriver},
        {"the app starts", 6, restartApp},
        {"the app dies", 4, killApp},
        {"the app is stopped", 3, freezeApp},
        {"the app goes on", 5, thawApp},
        {"the app is slow", 3, slowApp},
        {"the app sends a message", 8, sendMessage},
        {"time passes", 3, passTime},
    };
}

}  // namespace uafd
