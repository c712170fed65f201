// SPDX-License-Identifier: Apache-2.0
#define _POSIX_C_SOURCE 200809L

#include "settings.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <sys/stat.h>

#define DEFAULT_DIRECTORY "/tmp"
#define FIFO "usbAudioFifoTx"
#define GROUPS_MAX 256

// Those of most gadget drivers: -100 to 0 dB in steps of 1 dB.
#define VOLUME_MIN (-25600)
#define VOLUME_MAX 0
#define VOLUME_STEP 256

static int is_one_of(const char* id, const char* const* names) {
    while (*names != NULL && strcmp(id, *names) != 0) {
        ++names;
    }
    return *names != NULL;
}

// 0, -EINVAL for a wrong type, -ENOENT for an unknown field.
static int read_field(uafd_settings* settings, const char* id, snd_config_t* field, int is_mixer) {
    static const char* const of_others[] = {"comment", "type", "hint", NULL};
    const struct {
        const char* id;
        const char** text;
    } texts[] = {{"directory", &settings->directory}, {"group", &settings->group}};
    const struct {
        const char* id;
        long* number;
    } numbers[] = {{"volume_min", &settings->volume.min},
                   {"volume_max", &settings->volume.max},
                   {"volume_step", &settings->volume.step}};
    if (is_one_of(id, of_others)) {
        return 0;
    }
    for (size_t i = 0; i < sizeof texts / sizeof *texts; ++i) {
        if (strcmp(id, texts[i].id) == 0) {
            return snd_config_get_string(field, texts[i].text);
        }
    }
    for (size_t i = 0; is_mixer && i < sizeof numbers / sizeof *numbers; ++i) {
        if (strcmp(id, numbers[i].id) == 0) {
            return snd_config_get_integer(field, numbers[i].number);
        }
    }
    return -ENOENT;
}

static int is_range(const uafd_range* range) {
    return range->min >= INT16_MIN && range->max <= INT16_MAX && range->min < range->max &&
           range->step > 0;
}

// An empty text, which an argument without a default leaves, counts as none.
static void drop_empty(const char** text) {
    if (*text != NULL && **text == '\0') {
        *text = NULL;
    }
}

int uafd_settings_read(uafd_settings* settings, snd_config_t* conf, int is_mixer) {
    snd_config_iterator_t at;
    snd_config_iterator_t next;
    const uafd_settings defaults = {NULL, NULL, {VOLUME_MIN, VOLUME_MAX, VOLUME_STEP}};
    *settings = defaults;
    snd_config_for_each(at, next, conf) {
        snd_config_t* const field = snd_config_iterator_entry(at);
        const char* id = NULL;
        if (snd_config_get_id(field, &id) < 0) {
            continue;
        }
        const int error = read_field(settings, id, field, is_mixer);
        if (error < 0) {
            SNDERR("uafd: %s: %s", id, error == -ENOENT ? "unknown field" : "wrong type");
            return -EINVAL;
        }
    }
    drop_empty(&settings->directory);
    drop_empty(&settings->group);
    if (!is_range(&settings->volume)) {
        SNDERR("uafd: volume_min, volume_max and volume_step: no range of 16-bit numbers");
        return -EINVAL;
    }
    return 0;
}

static int is_own_group(gid_t group) {
    gid_t groups[GROUPS_MAX];
    const int count = getgroups(GROUPS_MAX, groups);
    for (int i = 0; i < count; ++i) {
        if (groups[i] == group) {
            return 1;
        }
    }
    return group == getegid() || geteuid() == 0;
}

// The daemon must be able to open what is made here. The service has made the FIFOs in a group of
// which both are members, so a new file gets that group. Otherwise the process's own has to do.
static void find_group(const char* directory, char* group, size_t size) {
    char path[PATH_MAX];
    struct stat found;
    const int length = snprintf(path, sizeof path, "%s/%s", directory, FIFO);
    const int is_found = length > 0 && (size_t)length < sizeof path && stat(path, &found) == 0;
    const gid_t id = is_found && is_own_group(found.st_gid) ? found.st_gid : getegid();
    snprintf(group, size, "%lu", (unsigned long)id);
}

int uafd_settings_open(const uafd_settings* settings, unsigned parts, uafd_companion** companion) {
    char group[24];
    uafd_options options = UAFD_OPTIONS_INIT;
    options.directory = settings->directory != NULL ? settings->directory : DEFAULT_DIRECTORY;
    options.parts = parts;
    options.group = settings->group;
    if (options.group == NULL) {
        find_group(options.directory, group, sizeof group);
        options.group = group;
    }
    const int error = uafd_companion_open_with(&options, companion);
    if (error < 0) {
        SNDERR("uafd: %s: %s", options.directory, uafd_companion_error_text(error));
    }
    return error;
}
