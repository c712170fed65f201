// SPDX-License-Identifier: Apache-2.0
// The sections of the benchmark. Each publishes the tables that it names, and throws when something
// does not stream. One thread.
#pragma once

#include <cstddef>

#include "board/kit/clock.h"

namespace bench {

struct Options {
    board::Ns measured;  // how long each stream runs after its settling
    size_t subjects;     // how many of each comparison, from the first on
};

// speaker, microphone, both: what the daemon and its peers cost on the gadget card.
void measureSpeaker(const Options& options);
void measureMicrophone(const Options& options);
void measureBoth(const Options& options);

// profile_calls, by the call that the daemon made, and profile_functions, by the function that ran,
// while both directions stream. Debian's libraries have lost the names of what they do not export:
// such a function bears the name of the exported one before it.
void measureProfile(const Options& options);

// latency, of single actions, and buffer_times, of the sound from end to end and in each buffer:
// the speaker's among both directions, the microphone's alone.
void measureLatency(const Options& options);

// growth: of the daemon's cost with the rate of the app's messages and of the host's events, the
// number of pending messages, the size of the app's writes, and the time it has run.
void measureGrowth(const Options& options);

// usb_speaker, usb_microphone, usb_both, and usb_drift for a host whose clock is far off: what the
// whole way over USB costs and how long it takes, with our driver and the daemon, and with the
// kernel's own audio gadget and other programs on the same wire.
void measureUsbSpeaker(const Options& options);
void measureUsbMicrophone(const Options& options);
void measureUsbBoth(const Options& options);
void measureUsbDrift(const Options& options);

// apps_recording, apps_playing: what programs cost that are the daemon's app, over the library and
// as users of the ALSA device.
void measureAppsRecording(const Options& options);
void measureAppsPlaying(const Options& options);

}  // namespace bench
