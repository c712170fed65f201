// SPDX-License-Identifier: Apache-2.0
// The mixer of the host's sound card: what a user moves on the host, and sees move when the board
// does it. Volumes are in 1/256 dB, as the daemon's messages have them, and steps of whole dB are
// exact. What fails throws. One thread.
#pragma once

#include <string>
#include <vector>

#include <alsa/asoundlib.h>

#include "board/kit/audio_host.h"
#include "board/kit/clock.h"

namespace board {

class HostMixer {
  public:
    // Opens the mixer of the present card; it is gone when the card goes.
    HostMixer();
    ~HostMixer();
    HostMixer(const HostMixer&) = delete;
    HostMixer& operator=(const HostMixer&) = delete;

    int volume(const Direction& direction);
    // The step nearest to it is set.
    void setVolume(const Direction& direction, int volume);
    bool isMuted(const Direction& direction);
    void setMute(const Direction& direction, bool mute);

    // The names of the controls of which the host's programs were told since the last call, or
    // since the mixer was opened, that their values have changed; whoever changed them. The names:
    static std::string volumeControl(const Direction& direction);
    static std::string muteControl(const Direction& direction);
    std::vector<std::string> takeEvents();
    // Takes events until one of this control has come. False: none came within the limit.
    bool waitForEvent(const std::string& control, Ns limit = kSecond);

  private:
    long value(const std::string& control);
    void setValue(const std::string& control, long value);

    snd_ctl_t* handle = nullptr;
};

}  // namespace board
