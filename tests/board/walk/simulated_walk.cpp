// SPDX-License-Identifier: Apache-2.0
// A walk with the simulated host: everything that can happen on its board.
#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "board/kit/board.h"
#include "board/kit/record_watch.h"
#include "tests/board/uevents.h"
#include "tests/board/walk/walk.h"

namespace uafd {
namespace {

using namespace board;

constexpr Ns kHandled = 50 * kMs;  // until a record is handled, whatever the app does
constexpr Ns kMicStopped =
    42 * kMs;  // from its off event: four passes of up to 10 ms, and the threads

// What a walk covers.
enum class Scope {
    kAll,  // everything
    kApp,  // all that an app may do; the host streams, binds and sets volumes as any host does
};

class SimulatedWalk : public Walk {
  public:
    SimulatedWalk(uint64_t seed, Scope scope);
    std::string measured() const override;

    // ---- For the actions -----------------------------------------------------------------------

    // Sends a command as the host; the board may refuse it in its present state.
    void host(const std::string& command);
    std::string direction();  // "speaker" or "mic"
    std::string pcm();        // "capture" or "playback"

  private:
    DaemonBoard& board() override { return simulated; }
    void act() override;
    std::string findDelay() override;
    void restore() override;
    void switchStreams(bool on) override;

    Board simulated{"random_walk"};
    const Scope scope;
    const std::vector<Action<SimulatedWalk>> actions;
    RecordWatch recordWatch{&simulated.host};
};

// ---- Host --------------------------------------------------------------------------------------

void switchStream(SimulatedWalk& walk) {
    walk.host(walk.direction() + pick(walk, {" on", " off"}));
}

void switchBothFast(SimulatedWalk& walk) {
    for (int64_t i = 2 + walk.random.below(6); i > 0; --i) {
        switchStream(walk);
    }
}

void changeVolume(SimulatedWalk& walk) {
    walk.host("volume " + walk.direction() + " " +
              std::to_string(walk.random.below(65536) - 32768));
}

void changeMute(SimulatedWalk& walk) {
    walk.host("mute " + walk.direction() + " " + walk.number(2));
}

void changeClock(SimulatedWalk& walk) {
    walk.host("ppb " + std::to_string(walk.random.below(2000001) - 1000000));
}

void stallData(SimulatedWalk& walk) {
    walk.host("stall " + walk.direction() + " " + walk.number(2));
}

// ---- Control device ----------------------------------------------------------------------------

void bindOrUnbind(SimulatedWalk& walk) {
    walk.host(pick(walk, {"bind", "unbind", "bind 4", "reenumerate"}));
}

void queueRawRecord(SimulatedWalk& walk) {
    walk.host("record " + walk.number(8) + " " + pick(walk, {"0", "1", "65535", "2147483648"}));
}

void queueOddRecord(SimulatedWalk& walk) {
    walk.host(std::string("record ") + pick(walk, {"8", "4294967295", "258", "65539"}) + " 1");
}

void queueBurst(SimulatedWalk& walk) {
    walk.host("record " + std::to_string(2 + walk.random.below(7)) + " 0 " + walk.number(500));
}

void spoilReads(SimulatedWalk& walk) {
    walk.host(std::string("fault read ") + pick(walk, {"0", "4", "5", "11", "19"}) +
              " after=" + walk.number(3) + " times=" + std::to_string(1 + walk.random.below(20)));
}

void shortenReads(SimulatedWalk& walk) {
    walk.host("fault read_short " + walk.number(8) + " after=" + walk.number(3) +
              " times=" + std::to_string(1 + walk.random.below(3)));
}

void refuseRequests(SimulatedWalk& walk) {
    walk.host(std::string("fault ") + pick(walk, {"set_volume", "set_mute"}) + " 5");
}

// ---- Sound card --------------------------------------------------------------------------------

void injure(SimulatedWalk& walk) {
    walk.host(pick(walk, {"xrun ", "suspend "}) + walk.direction());
}

void injureOften(SimulatedWalk& walk) {
    for (int64_t i = 1 + walk.random.below(10); i > 0; --i) {
        injure(walk);
        sleepFor(walk.random.below(10) * kMs);
    }
}

void refuseResumes(SimulatedWalk& walk) {
    walk.host("fault " + walk.pcm() + ".resume " + pick(walk, {"11", "5"}) +
              " times=" + std::to_string(1 + walk.random.below(7)));
    walk.host("suspend " + walk.direction());
}

void spoilStart(SimulatedWalk& walk) {
    walk.host("fault " + walk.pcm() + "." +
              pick(walk, {"open 5", "hw_params 5", "prepare 5", "start 5", "config 22", "access 22",
                          "format 22", "channels 22", "rate 22", "buffer 22", "period 22",
                          "other_rate 44100", "unplug 1"}) +
              " after=" + walk.number(2));
}

void removeOrAddCard(SimulatedWalk& walk) {
    walk.host(pick(walk, {"card remove", "card add", "card add 3"}));
}

// ---- Cable -------------------------------------------------------------------------------------

void changeUsbState(SimulatedWalk& walk) {
    walk.host(std::string("usb_state ") + pick(walk, {"CONFIGURED", "DISCONNECTED", "CONNECTED"}) +
              pick(walk, {"", " quiet"}));
}

void sendUevent(SimulatedWalk& walk) {
    walk.host(pick(walk, {"uevent change", "uevent add", "uevent change USB_STATE=CONFIGURED",
                          "uevent change USB_STATE=", "uevent remove USB_STATE=DISCONNECTED",
                          "foreign change USB_STATE=DISCONNECTED"}));
}

// Sends a uevent as a process; only the kernel's own count.
void forgeUevent(SimulatedWalk& walk) {
    const std::string text = ueventText(
        pick(walk, {"change@/a SUBSYSTEM=android_usb USB_STATE=DISCONNECTED", "change@/a", "x"}));
    const auto groups = static_cast<unsigned>(1 + walk.random.below(15));
    walk.note(std::to_string(text.size()) + " bytes to groups " + std::to_string(groups));
    UeventSender().send(text, groups);
}

void moveCable(SimulatedWalk& walk) {
    walk.host(pick(walk, {"unplug", "plug", "cable 0", "cable 1"}));
}

void failEnumeration(SimulatedWalk& walk) {
    walk.host("fault enumerate 1");
    walk.host("usb_state DISCONNECTED");
}

// An action, and in which walks: kAll is left out of walks over the app.
struct ScopedAction {
    Action<SimulatedWalk> action;
    Scope scope;
};

const ScopedAction kActions[] = {
    {{"the host switches a stream", 30, switchStream}, Scope::kApp},
    {{"the host switches its streams fast", 8, switchBothFast}, Scope::kApp},
    {{"the host changes a volume", 4, changeVolume}, Scope::kApp},
    {{"the host changes a mute", 4, changeMute}, Scope::kApp},
    {{"the host's clock changes", 3, changeClock}, Scope::kAll},
    {{"data stalls", 3, stallData}, Scope::kAll},
    {{"the gadget binds or unbinds", 6, bindOrUnbind}, Scope::kApp},
    {{"a raw record", 6, queueRawRecord}, Scope::kAll},
    {{"an odd record", 2, queueOddRecord}, Scope::kAll},
    {{"a burst of records", 2, queueBurst}, Scope::kAll},
    {{"reads fail", 4, spoilReads}, Scope::kAll},
    {{"reads are short", 4, shortenReads}, Scope::kAll},
    {{"requests are refused", 2, refuseRequests}, Scope::kAll},
    {{"a stream is injured", 8, injure}, Scope::kAll},
    {{"streams are injured often", 3, injureOften}, Scope::kAll},
    {{"resumes are refused", 3, refuseResumes}, Scope::kAll},
    {{"a start's step fails", 8, spoilStart}, Scope::kAll},
    {{"the card goes or comes", 4, removeOrAddCard}, Scope::kAll},
    {{"the app starts", 8, restartApp}, Scope::kApp},
    {{"the app dies", 3, killApp}, Scope::kApp},
    {{"the app is stopped", 4, freezeApp}, Scope::kApp},
    {{"the app goes on", 6, thawApp}, Scope::kApp},
    {{"the app is slow", 6, slowApp}, Scope::kApp},
    {{"the app loses its socket", 2, loseSocket}, Scope::kApp},
    {{"a FIFO goes or comes", 5, changeFifo}, Scope::kApp},
    {{"the app sends a message", 8, sendMessage}, Scope::kApp},
    {{"the app sends an odd datagram", 3, sendOddDatagram}, Scope::kApp},
    {{"the USB state changes", 4, changeUsbState}, Scope::kAll},
    {{"a uevent", 4, sendUevent}, Scope::kAll},
    {{"a forged uevent", 2, forgeUevent}, Scope::kAll},
    {{"the cable moves", 4, moveCable}, Scope::kAll},
    {{"an enumeration fails", 2, failEnumeration}, Scope::kAll},
    {{"time passes", 3, passTime}, Scope::kApp},
};

std::vector<Action<SimulatedWalk>> actionsOf(Scope scope) {
    std::vector<Action<SimulatedWalk>> actions;
    for (const ScopedAction& scoped : kActions) {
        if (scope == Scope::kAll || scoped.scope == scope) {
            actions.push_back(scoped.action);
        }
    }
    return actions;
}

// ---- The walk ----------------------------------------------------------------------------------

SimulatedWalk::SimulatedWalk(uint64_t seed, Scope scope)
    : Walk(seed), scope(scope), actions(actionsOf(scope)) {
    begin();
}

void SimulatedWalk::host(const std::string& command) {
    const int error = simulated.host.tryCommand(command);
    note(command + (error == 0 ? "" : " (refused)"));
}

std::string SimulatedWalk::direction() {
    return random.flip() ? "speaker" : "mic";
}

std::string SimulatedWalk::pcm() {
    return random.flip() ? "capture" : "playback";
}

void SimulatedWalk::act() {
    const Action<SimulatedWalk>& action = chooseAction(random, actions);
    announce(action.name);
    action.run(*this);
    if (scope == Scope::kApp) {
        recordWatch.probe();
    }
}

// Where records come by the hundred or reads fail, a record may wait until the ones before it are
// done.
std::string SimulatedWalk::findDelay() {
    recordWatch.look();
    const Delay& delay = scope == Scope::kApp ? recordWatch.wait() : recordWatch.absence();
    if (delay.time > kHandled) {
        return "a record waited for " + delay.text();
    }
    if (scope == Scope::kApp && recordWatch.micStop().time > kMicStopped) {
        return "the microphone stopped after " + recordWatch.micStop().text();
    }
    return "";
}

void SimulatedWalk::restore() {
    for (const char* command : {"fault clear", "stall speaker 0", "stall mic 0", "ppb 0",
                                "speaker off", "mic off", "cable 1", "usb_state CONFIGURED"}) {
        simulated.host.command(command);
    }
    if (simulated.host.counter("card") < 0 || simulated.host.counter("bound") == 0) {
        simulated.host.command("unbind");
    }
    simulated.host.command("bind");
}

void SimulatedWalk::switchStreams(bool on) {
    simulated.host.command(on ? "speaker on" : "speaker off");
    simulated.host.command(on ? "mic on" : "mic off");
}

std::string SimulatedWalk::measured() const {
    return std::to_string(recordWatch.read()) + " records; the longest wait of one " +
           recordWatch.wait().text() + "; the longest stop of the microphone " +
           recordWatch.micStop().text();
}

}  // namespace

std::unique_ptr<Walk> simulatedWalk(uint64_t seed, bool overApp) {
    return std::make_unique<SimulatedWalk>(seed, overApp ? Scope::kApp : Scope::kAll);
}

}  // namespace uafd
