// SPDX-License-Identifier: Apache-2.0
// A walk over both ends of the wire.
#include <cerrno>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "board/kit/files.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/usb_host.h"
#include "board/kit/usb/wire_board.h"
#include "tests/board/walk/walk.h"

namespace uafd {
namespace {

using namespace board;

constexpr char kDetector[] = "/sys/module/usb_board/parameters/plugged";
constexpr char kConfiguration[] = "/sys/bus/usb/devices/1-1/bConfigurationValue";
constexpr char kPullUp[] = "/sys/class/udc/ff300000.usb/soft_connect";

class WireWalk : public Walk {
  public:
    explicit WireWalk(uint64_t seed);
    std::string measured() const override;

    // ---- For the actions -----------------------------------------------------------------------

    WireBoard wired{"random_walk"};

    // Does and prints what may fail in the present state.
    void attempt(const std::string& what, const std::function<void()>& deed);
    // Likewise; refused while the host has no card.
    void attemptOnHost(const std::string& what, const std::function<void()>& deed);
    // False while the controllers' module is away: the host has no bus then.
    static bool hasController();
    Direction direction();
    // Switches a stream of the host. One that is on is switched off before it goes on again.
    void switchStream(const Direction& direction, bool on);

  private:
    DaemonBoard& board() override { return wired; }
    void act() override;
    void restore() override;
    void switchStreams(bool on) override;
    std::string proveMore() override;

    int64_t deeds = 0;
    int64_t refusals = 0;
    int64_t proofs = 0;
};

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
        sleepFor(walk.random.below(400) * kMs);
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
        sleepFor(walk.random.below(25) * kMs);
    }
}

void moveVolume(WireWalk& walk) {
    const Direction direction = walk.direction();
    const int volume = static_cast<int>(walk.random.below(101)) * -256;
    walk.attemptOnHost(direction.name + std::string(" at ") + std::to_string(volume),
                       [&] { walk.wired.host.setVolume(direction, volume); });
}

void moveMute(WireWalk& walk) {
    const Direction direction = walk.direction();
    const bool mute = walk.random.flip();
    walk.attemptOnHost(direction.name + std::string(mute ? " muted" : " unmuted"),
                       [&] { walk.wired.host.setMute(direction, mute); });
}

void resetDevice(WireWalk& walk) {
    walk.attemptOnHost("reset", [] {
        if (UsbDevice().reset() != 0) {
            fail("reset");
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
        sleepFor(walk.random.below(400) * kMs);
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
    if (unloadModule("usb_f_vexa") != EWOULDBLOCK) {
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
            sleepFor(walk.random.below(400) * kMs);
        }
    });
    if (binding >= 3 && binding < 6) {
        bind();
    }
}

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

// ---- The walk ----------------------------------------------------------------------------------

WireWalk::WireWalk(uint64_t seed) : Walk(seed) {
    begin();
}

void WireWalk::attempt(const std::string& what, const std::function<void()>& deed) {
    ++deeds;
    try {
        deed();
        note(what);
    } catch (const std::exception&) {
        ++refusals;
        note(what + " (refused)");
    }
}

void WireWalk::attemptOnHost(const std::string& what, const std::function<void()>& deed) {
    attempt(what, [&] {
        if (!UsbHost::hasCard()) {
            throw std::runtime_error("no card");
        }
        deed();
    });
}

bool WireWalk::hasController() {
    return exists("/proc/usb_wire");
}

Direction WireWalk::direction() {
    return random.flip() ? kSpeakerDirection : kMicDirection;
}

void WireWalk::switchStream(const Direction& direction, bool on) {
    const bool isSpeaker = direction == kSpeakerDirection;
    const std::string what = direction.name + std::string(on ? " on" : " off");
    if (on) {
        attemptOnHost(what, [&] { isSpeaker ? wired.host.play(noise) : wired.host.record(); });
    } else {
        attempt(what, [&] { isSpeaker ? wired.host.stopPlaying() : wired.host.stopRecording(); });
    }
}

void WireWalk::act() {
    static const std::vector<Action<WireWalk>> actions = wireActions();
    const Action<WireWalk>& action = chooseAction(random, actions);
    announce(action.name);
    action.run(*this);
}

// A gadget that is bound again is enumerated, whatever the state of gadget and host was.
void WireWalk::restore() {
    wired.host.stopPlaying();
    wired.host.stopRecording();
    if (!hasController()) {
        wired.loadController();
    }
    wired.wire.command("clear");
    attempt("unbind", [this] { wired.gadget.unbind(); });
    UsbHost::waitForCard(false);
    wired.gadget.bind();
    wired.host.plug();
}

void WireWalk::switchStreams(bool on) {
    if (on) {
        wired.host.play(noise);
        wired.host.record();
    } else {
        wired.host.stopPlaying();
        wired.host.stopRecording();
    }
}

// Checks that what the host sets reaches the app, and nothing else does; and that what the app sets
// reaches the host.
std::string WireWalk::proveMore() {
    ++proofs;
    for (const Direction& direction : {kSpeakerDirection, kMicDirection}) {
        const size_t mark = wired.app->messages().size();
        const int before = wired.host.volume(direction);
        const int volume = before == 0 ? -2560 : 0;
        wired.host.setVolume(direction, volume);
        const std::vector<Message> wanted{{direction.channel + 2, static_cast<uint16_t>(volume)}};
        if (!waitFor([&] { return wired.app->messageValues(mark) == wanted; }, kSecond)) {
            return std::string("the host's volume of the ") + direction.name +
                   " does not reach the app";
        }
    }
    const int volume = wired.host.volume(kSpeakerDirection) - 256;
    App::send({kSpeakerDirection.channel + 2, static_cast<uint16_t>(volume)});
    return waitFor([&] { return wired.host.volume(kSpeakerDirection) == volume; }, kSecond)
               ? ""
               : "the app's volume does not reach the host";
}

std::string WireWalk::measured() const {
    return std::to_string(deeds) + " deeds, of which " + std::to_string(refusals) +
           " were refused; " + std::to_string(proofs) + " proofs";
}

}  // namespace

std::unique_ptr<Walk> wireWalk(uint64_t seed) {
    return std::make_unique<WireWalk>(seed);
}

}  // namespace uafd
