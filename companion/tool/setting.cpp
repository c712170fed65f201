// SPDX-License-Identifier: Apache-2.0
// Volume and mute. These commands only send, so they work beside any other app.
#include <uafd_companion.hpp>

#include "companion/tool/access.h"
#include "companion/tool/command.h"

namespace uafd {
namespace {

// `send` is called with the companion and returns the library's result.
template <typename Send>
int sendAlone(const char* what, Send&& send) {
    uafd::Companion companion;
    int error = companion.open(optionsFor(0));
    if (error == 0) {
        error = send(&companion);
    }
    return error == 0 ? kExitDone : failed(what, uafd_companion_error_text(error));
}

class Volume final : public Command {
  public:
    Volume() noexcept
        : Command("volume", "N", "set the speaker's volume: -32768 to 32767, the driver's unit") {}
    int run(const std::string& argument) override {
        int number = 0;
        if (!readNumber<int>(argument, INT16_MIN, INT16_MAX, &number)) {
            return misused("volume " + argument + ": needs " + rangeOf<int>(INT16_MIN, INT16_MAX));
        }
        return sendAlone(name, [number](uafd::Companion* companion) {
            return companion->setSpeakerVolume(static_cast<int16_t>(number));
        });
    }
};

class Mute final : public Command {
  public:
    Mute() noexcept : Command("mute", "on|off", "mute or unmute the speaker") {}
    int run(const std::string& argument) override {
        if (argument != "on" && argument != "off") {
            return misused("mute " + argument + ": needs on or off");
        }
        return sendAlone(name, [&argument](uafd::Companion* companion) {
            return companion->setSpeakerMute(argument == "on");
        });
    }
};

Volume volume;
Mute mute;

}  // namespace
}  // namespace uafd
