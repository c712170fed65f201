// SPDX-License-Identifier: Apache-2.0
#include "tests/board/walk/wire_walk.h"

#include <exception>
#include <stdexcept>

#include "board/kit/files.h"
#include "board/kit/usb/usb_host.h"

namespace uafd {

using board::Direction;
using board::kMicDirection;
using board::kSecond;
using board::kSpeakerDirection;
using board::Message;
using board::UsbHost;

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
    return board::exists("/proc/usb_wire");
}

Direction WireWalk::direction() {
    return random.flip() ? kSpeakerDirection : kMicDirection;
}

void WireWalk::switchStream(const Direction& direction, bool on) {
    const bool isSpeaker = direction == kSpeakerDirection;
    const std::string what = direction.name + std::string(on ? " on" : " off");
    if (on) {
        attemptOnHost(what,
                      [&] { isSpeaker ? wired.host.play(board::noise) : wired.host.record(); });
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
        wired.host.play(board::noise);
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
        if (!board::waitFor([&] { return wired.app->messageValues(mark) == wanted; }, kSecond)) {
            return std::string("the host's volume of the ") + direction.name +
                   " does not reach the app";
        }
    }
    const int volume = wired.host.volume(kSpeakerDirection) - 256;
    board::App::send({kSpeakerDirection.channel + 2, static_cast<uint16_t>(volume)});
    return board::waitFor([&] { return wired.host.volume(kSpeakerDirection) == volume; }, kSecond)
               ? ""
               : "the app's volume does not reach the host";
}

std::string WireWalk::measured() const {
    return std::to_string(deeds) + " deeds, of which " + std::to_string(refusals) +
           " were refused; " + std::to_string(proofs) + " proofs";
}

}  // namespace uafd
