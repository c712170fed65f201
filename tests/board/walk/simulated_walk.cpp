// SPDX-License-Identifier: Apache-2.0
#include "tests/board/walk/simulated_walk.h"

namespace uafd {
namespace {

using board::kMs;

constexpr board::Ns kHandled = 50 * kMs;  // until a record is handled, whatever the app does
constexpr board::Ns kMicStopped =
    42 * kMs;  // from its off event: four passes of up to 10 ms, and the threads

}  // namespace

SimulatedWalk::SimulatedWalk(uint64_t seed, Scope scope)
    : Walk(seed), scope(scope), actions(simulatedActions(scope)) {
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
    const board::Delay& delay = scope == Scope::kApp ? recordWatch.wait() : recordWatch.absence();
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

}  // namespace uafd
