// SPDX-License-Identifier: Apache-2.0
// ALSA's control plugin: a mixer of type uafd has the host's volumes and mutes. The speaker's can
// be set; the microphone's are the host's. A volume is counted in the gadget driver's steps, from
// the softest on, as mixers look for the next louder or softer one by adding or subtracting 1. The
// daemon tells a volume or mute only when it changes and when it starts itself, and cannot be
// asked; until then the mixer assumes the loudest volume, not muted.
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <alsa/asoundlib.h>
#include <alsa/control_external.h>

#include "settings.h"

#define CENTIBELS(volume) ((volume)*100 / 256)  // the unit of ALSA's dB tables: 1/100 dB
#define TLV_WORDS 4

typedef enum element { SPEAKER_VOLUME, SPEAKER_SWITCH, MIC_VOLUME, MIC_SWITCH, ELEMENTS } element;

static const struct {
    const char* name;
    uafd_event_type event;
    int is_volume;
    int is_writable;
} elements[ELEMENTS] = {{"Speaker Playback Volume", UAFD_SPEAKER_VOLUME, 1, 1},
                        {"Speaker Playback Switch", UAFD_SPEAKER_MUTE, 0, 1},
                        {"Mic Capture Volume", UAFD_MIC_VOLUME, 1, 0},
                        {"Mic Capture Switch", UAFD_MIC_MUTE, 0, 0}};

typedef struct uafd_ctl {
    snd_ctl_ext_t ext;
    uafd_companion* companion;
    uafd_range volume;        // in the driver's unit, 1/256 dB
    long steps;               // in that range
    long values[ELEMENTS];    // a volume in steps; a switch is 1 when it is not muted
    unsigned changed;         // a bit for each element with a change that was not read
    unsigned tlv[TLV_WORDS];  // the volumes' range in dB
} uafd_ctl;

// ---- The daemon's events ------------------------------------------------------------------------

static long clamp(long value, long min, long max) {
    if (value < min) {
        return min;
    }
    return value > max ? max : value;
}

static long nearest_step(const uafd_ctl* ctl, long volume) {
    const uafd_range* const range = &ctl->volume;
    const long offset = clamp(volume, range->min, range->max) - range->min;
    return clamp((offset + range->step / 2) / range->step, 0, ctl->steps);
}

static long volume_of(const uafd_ctl* ctl, long steps) {
    return ctl->volume.min + steps * ctl->volume.step;
}

static void apply(uafd_ctl* ctl, const uafd_event* event) {
    for (unsigned i = 0; i < ELEMENTS; ++i) {
        if (event->type != elements[i].event) {
            continue;
        }
        const long value =
            elements[i].is_volume ? nearest_step(ctl, event->value) : event->value == 0;
        if (value != ctl->values[i]) {
            ctl->values[i] = value;
            ctl->changed |= 1U << i;
        }
    }
}

static void take_events(uafd_ctl* ctl) {
    uafd_event event;
    while (uafd_companion_next_event(ctl->companion, &event) > 0) {
        apply(ctl, &event);
    }
}

// ---- Elements -----------------------------------------------------------------------------------

static int on_elem_count(snd_ctl_ext_t* ext) {
    (void)ext;
    return ELEMENTS;
}

static void fill_id(unsigned index, snd_ctl_elem_id_t* id) {
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, elements[index].name);
}

static int on_elem_list(snd_ctl_ext_t* ext, unsigned offset, snd_ctl_elem_id_t* id) {
    (void)ext;
    if (offset >= ELEMENTS) {
        return -EINVAL;
    }
    fill_id(offset, id);
    return 0;
}

// Elements are known by their number, which ALSA counts from 1, or by their name.
static snd_ctl_ext_key_t on_find_elem(snd_ctl_ext_t* ext, const snd_ctl_elem_id_t* id) {
    const unsigned number = snd_ctl_elem_id_get_numid(id);
    (void)ext;
    if (number > 0) {
        return number <= ELEMENTS ? number - 1 : SND_CTL_EXT_KEY_NOT_FOUND;
    }
    for (unsigned i = 0; i < ELEMENTS; ++i) {
        if (strcmp(snd_ctl_elem_id_get_name(id), elements[i].name) == 0) {
            return i;
        }
    }
    return SND_CTL_EXT_KEY_NOT_FOUND;
}

static int on_get_attribute(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, int* type, unsigned* access,
                            unsigned* count) {
    (void)ext;
    *type = elements[key].is_volume ? SND_CTL_ELEM_TYPE_INTEGER : SND_CTL_ELEM_TYPE_BOOLEAN;
    *access = elements[key].is_writable ? SND_CTL_EXT_ACCESS_READWRITE : SND_CTL_EXT_ACCESS_READ;
    *access |= elements[key].is_volume ? SND_CTL_EXT_ACCESS_TLV_READ : 0;
    *count = 1;
    return 0;
}

static int on_get_integer_info(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* min, long* max,
                               long* step) {
    (void)key;
    *min = 0;
    *max = ((uafd_ctl*)ext->private_data)->steps;
    *step = 1;
    return 0;
}

// A subscriber takes the events itself, by on_read_event.
static int on_read_integer(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* value) {
    uafd_ctl* const ctl = ext->private_data;
    if (!ext->subscribed) {
        take_events(ctl);
    }
    *value = ctl->values[key];
    return 0;
}

// Sends a value also when it is the present one: the host's may be another that was never told.
static int on_write_integer(snd_ctl_ext_t* ext, snd_ctl_ext_key_t key, long* value) {
    uafd_ctl* const ctl = ext->private_data;
    const long before = ctl->values[key];
    int error = -EPERM;
    if (key == SPEAKER_VOLUME) {
        *value = clamp(*value, 0, ctl->steps);
        error = uafd_companion_set_speaker_volume(ctl->companion, (int16_t)volume_of(ctl, *value));
    } else if (key == SPEAKER_SWITCH) {
        *value = *value != 0;
        error = uafd_companion_set_speaker_mute(ctl->companion, !*value);
    }
    if (error < 0) {
        return error;
    }
    ctl->values[key] = *value;
    return *value != before;
}

// ---- Events to the program ----------------------------------------------------------------------

static int on_read_event(snd_ctl_ext_t* ext, snd_ctl_elem_id_t* id, unsigned* event_mask) {
    uafd_ctl* const ctl = ext->private_data;
    take_events(ctl);
    for (unsigned i = 0; i < ELEMENTS; ++i) {
        if ((ctl->changed & 1U << i) != 0) {
            ctl->changed &= ~(1U << i);
            fill_id(i, id);
            snd_ctl_elem_id_set_numid(id, i + 1);
            *event_mask = SND_CTL_EVENT_MASK_VALUE;
            return 1;
        }
    }
    return -EAGAIN;
}

static void on_subscribe_events(snd_ctl_ext_t* ext, int subscribe) {
    (void)subscribe;
    ((uafd_ctl*)ext->private_data)->changed = 0;
}

// ---- Opening and closing ------------------------------------------------------------------------

static void on_close(snd_ctl_ext_t* ext) {
    uafd_ctl* const ctl = ext->private_data;
    uafd_companion_close(ctl->companion);
    free(ctl);
}

static const snd_ctl_ext_callback_t callbacks = {
    .close = on_close,
    .elem_count = on_elem_count,
    .elem_list = on_elem_list,
    .find_elem = on_find_elem,
    .get_attribute = on_get_attribute,
    .get_integer_info = on_get_integer_info,
    .read_integer = on_read_integer,
    .write_integer = on_write_integer,
    .subscribe_events = on_subscribe_events,
    .read_event = on_read_event,
};

static void fill(uafd_ctl* ctl) {
    snd_ctl_ext_t* const ext = &ctl->ext;
    ctl->steps = (ctl->volume.max - ctl->volume.min) / ctl->volume.step;
    const unsigned tlv[TLV_WORDS] = {SND_CTL_TLVT_DB_MINMAX, 2 * sizeof *tlv,
                                     (unsigned)CENTIBELS(ctl->volume.min),
                                     (unsigned)CENTIBELS(volume_of(ctl, ctl->steps))};
    memcpy(ctl->tlv, tlv, sizeof tlv);
    for (unsigned i = 0; i < ELEMENTS; ++i) {
        ctl->values[i] = elements[i].is_volume ? ctl->steps : 1;
    }
    ext->version = SND_CTL_EXT_VERSION;
    snprintf(ext->id, sizeof ext->id, "uafd");
    snprintf(ext->driver, sizeof ext->driver, "uafd");
    snprintf(ext->name, sizeof ext->name, "USB host");
    snprintf(ext->longname, sizeof ext->longname, "The USB host's speaker and microphone");
    snprintf(ext->mixername, sizeof ext->mixername, "USB host");
    ext->poll_fd = uafd_companion_events_fd(ctl->companion);
    ext->callback = &callbacks;
    ext->tlv.p = ctl->tlv;
    ext->private_data = ctl;
}

SND_CTL_PLUGIN_DEFINE_FUNC(uafd) {
    uafd_settings settings;
    (void)root;
    int error = uafd_settings_read(&settings, conf, 1);
    if (error < 0) {
        return error;
    }
    uafd_ctl* const ctl = calloc(1, sizeof *ctl);
    if (ctl == NULL) {
        return -ENOMEM;
    }
    ctl->volume = settings.volume;
    error = uafd_settings_open(&settings, UAFD_EVENTS, &ctl->companion);
    if (error < 0) {
        free(ctl);
        return error;
    }
    fill(ctl);
    take_events(ctl);
    error = snd_ctl_ext_create(&ctl->ext, name, mode);
    if (error < 0) {
        on_close(&ctl->ext);
        return error;
    }
    *handlep = ctl->ext.handle;
    return 0;
}

// As SND_CTL_PLUGIN_SYMBOL, which has a semicolon too many.
SND_DLSYM_BUILD_VERSION(SND_CTL_PLUGIN_ENTRY(uafd), SND_CONTROL_DLSYM_VERSION)
