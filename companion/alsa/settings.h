// SPDX-License-Identifier: Apache-2.0
// What ALSA's configuration says about a device of type uafd, and opening the companion with it.
#pragma once

#include <alsa/asoundlib.h>

#include "uafd_companion.h"

// The mixer's volumes, in the gadget driver's unit, which is 1/256 dB.
typedef struct uafd_range {
    long min;
    long max;
    long step;
} uafd_range;

typedef struct uafd_settings {
    const char* directory;  // of FIFOs and sockets; null is the library's default
    const char* group;      // of files that are made; null is that of the existing ones
    uafd_range volume;
} uafd_settings;

// Fills the settings; their texts are the configuration's. Without `is_mixer` a volume is an
// unknown field. 0, or -EINVAL with a message to ALSA's error handler.
int uafd_settings_read(uafd_settings* settings, snd_config_t* conf, int is_mixer);

// Opens the parts; results as for uafd_companion_open_with, with a message to ALSA's error handler.
int uafd_settings_open(const uafd_settings* settings, unsigned parts, uafd_companion** companion);
