// SPDX-License-Identifier: Apache-2.0
// What the whole way over USB costs and how long it takes: our driver with the daemon, and the
// kernel's own audio gadget with other programs, on the same wire. One thread.
#pragma once

#include "bench/board/options.h"

namespace bench {

// Each publishes one table with its name: usb_speaker, usb_microphone, usb_both, and usb_drift for
// a host whose clock is far off. Throws when a subject does not stream.
void measureUsbSpeaker(const Options& options);
void measureUsbMicrophone(const Options& options);
void measureUsbBoth(const Options& options);
void measureUsbDrift(const Options& options);

}  // namespace bench
