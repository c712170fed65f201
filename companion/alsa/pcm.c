// SPDX-License-Identifier: Apache-2.0
// ALSA's PCM plugin: a PCM of type uafd captures what the USB host plays, and plays back what it
// records. It has the daemon's own format; ALSA's plug converts others. ALSA calls back with the
// PCM's lock held or from one thread of the program at a time.
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <poll.h>
#include <stdlib.h>

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include "settings.h"
#include "stream.h"

#define FRAME_BYTES (UAFD_CHANNELS * sizeof(int16_t))

// A period is at least the daemon's for the speaker. The buffer holds two blocks or more, so that
// the program has the time of one for the next.
#define PERIOD_FRAMES_MIN 240
#define BUFFER_FRAMES_MIN (2 * UAFD_BLOCK_FRAMES)
#define BUFFER_FRAMES_MAX (2 * UAFD_RATE)
#define PERIODS_MIN 2

typedef struct uafd_pcm {
    snd_pcm_ioplug_t io;
    uafd_stream stream;
} uafd_pcm;

static uafd_stream* stream_of(snd_pcm_ioplug_t* io) {
    return &((uafd_pcm*)io->private_data)->stream;
}

static int on_start(snd_pcm_ioplug_t* io) {
    return uafd_stream_start(stream_of(io));
}

static int on_stop(snd_pcm_ioplug_t* io) {
    return uafd_stream_stop(stream_of(io));
}

static int on_prepare(snd_pcm_ioplug_t* io) {
    return uafd_stream_prepare(stream_of(io));
}

static int on_pause(snd_pcm_ioplug_t* io, int enable) {
    return uafd_stream_pause(stream_of(io), enable);
}

static int on_drain(snd_pcm_ioplug_t* io) {
    return uafd_stream_drain(stream_of(io), io->nonblock);
}

static snd_pcm_sframes_t on_pointer(snd_pcm_ioplug_t* io) {
    return uafd_stream_position(stream_of(io));
}

static int on_delay(snd_pcm_ioplug_t* io, snd_pcm_sframes_t* frames) {
    return uafd_stream_delay(stream_of(io), frames);
}

// Both ways of access are interleaved, so the first channel's area has the frames.
static snd_pcm_sframes_t on_transfer(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                                     snd_pcm_uframes_t offset, snd_pcm_uframes_t size) {
    char* const frames = (char*)areas->addr + areas->first / 8 + offset * FRAME_BYTES;
    const int error = uafd_stream_copy(stream_of(io), frames, size);
    return error < 0 ? error : (snd_pcm_sframes_t)size;
}

static int on_hw_params(snd_pcm_ioplug_t* io, snd_pcm_hw_params_t* params) {
    (void)params;
    return uafd_stream_resize(stream_of(io), io->buffer_size);
}

static int on_hw_free(snd_pcm_ioplug_t* io) {
    return uafd_stream_resize(stream_of(io), 0);
}

static int on_sw_params(snd_pcm_ioplug_t* io, snd_pcm_sw_params_t* params) {
    snd_pcm_uframes_t boundary = 0;
    snd_pcm_uframes_t wake_at = 0;
    snd_pcm_uframes_t stop_at = 0;
    snd_pcm_sw_params_get_boundary(params, &boundary);
    snd_pcm_sw_params_get_avail_min(params, &wake_at);
    snd_pcm_sw_params_get_stop_threshold(params, &stop_at);
    return uafd_stream_set_limits(stream_of(io), boundary, wake_at, stop_at);
}

// The descriptor is readable in either direction. A program that waits learns of an xrun here.
static int on_poll_revents(snd_pcm_ioplug_t* io, struct pollfd* descriptors, unsigned count,
                           unsigned short* revents) {
    const int ready = uafd_stream_is_ready(stream_of(io));
    const unsigned short event = io->stream == SND_PCM_STREAM_CAPTURE ? POLLIN : POLLOUT;
    (void)descriptors;
    (void)count;
    if (ready == -EPIPE) {
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_XRUN);
    }
    *revents = ready == 0 ? 0 : event;
    if (ready < 0) {
        *revents |= POLLERR;
    }
    return ready < 0 && ready != -EPIPE ? ready : 0;
}

static int on_close(snd_pcm_ioplug_t* io) {
    uafd_pcm* const pcm = io->private_data;
    uafd_stream_close(&pcm->stream);
    free(pcm);
    return 0;
}

static const snd_pcm_ioplug_callback_t callbacks = {
    .start = on_start,
    .stop = on_stop,
    .pointer = on_pointer,
    .transfer = on_transfer,
    .close = on_close,
    .hw_params = on_hw_params,
    .hw_free = on_hw_free,
    .sw_params = on_sw_params,
    .prepare = on_prepare,
    .drain = on_drain,
    .pause = on_pause,
    .poll_revents = on_poll_revents,
    .delay = on_delay,
};

static int set_limits(snd_pcm_ioplug_t* io) {
    static const unsigned access[] = {SND_PCM_ACCESS_RW_INTERLEAVED,
                                      SND_PCM_ACCESS_MMAP_INTERLEAVED};
    static const unsigned format[] = {SND_PCM_FORMAT_S16};
    static const struct {
        int type;
        unsigned min;
        unsigned max;
    } ranges[] = {{SND_PCM_IOPLUG_HW_CHANNELS, UAFD_CHANNELS, UAFD_CHANNELS},
                  {SND_PCM_IOPLUG_HW_RATE, UAFD_RATE, UAFD_RATE},
                  {SND_PCM_IOPLUG_HW_PERIOD_BYTES, PERIOD_FRAMES_MIN * FRAME_BYTES,
                   BUFFER_FRAMES_MAX / PERIODS_MIN * FRAME_BYTES},
                  {SND_PCM_IOPLUG_HW_BUFFER_BYTES, BUFFER_FRAMES_MIN * FRAME_BYTES,
                   BUFFER_FRAMES_MAX * FRAME_BYTES},
                  {SND_PCM_IOPLUG_HW_PERIODS, PERIODS_MIN, BUFFER_FRAMES_MAX / PERIOD_FRAMES_MIN}};
    int error = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, 2, access);
    if (error == 0) {
        error = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 1, format);
    }
    for (size_t i = 0; error == 0 && i < sizeof ranges / sizeof *ranges; ++i) {
        error = snd_pcm_ioplug_set_param_minmax(io, ranges[i].type, ranges[i].min, ranges[i].max);
    }
    return error;
}

// From here on closing the PCM frees everything.
static int create(uafd_pcm* pcm, const char* name, snd_pcm_stream_t direction, int mode) {
    snd_pcm_ioplug_t* const io = &pcm->io;
    io->version = SND_PCM_IOPLUG_VERSION;
    io->name = "uafd: the USB host's sound";
    io->flags = SND_PCM_IOPLUG_FLAG_MONOTONIC | SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    io->poll_fd = pcm->stream.ready;
    io->poll_events = POLLIN;
    io->callback = &callbacks;
    io->private_data = pcm;
    io->nonblock = (mode & SND_PCM_NONBLOCK) != 0;
    int error = snd_pcm_ioplug_create(io, name, direction, mode);
    if (error < 0) {
        on_close(io);
        return error;
    }
    error = set_limits(io);
    if (error < 0) {
        snd_pcm_ioplug_delete(io);
    }
    return error;
}

SND_PCM_PLUGIN_DEFINE_FUNC(uafd) {
    uafd_settings settings;
    uafd_companion* companion = NULL;
    const int is_capture = stream == SND_PCM_STREAM_CAPTURE;
    (void)root;
    int error = uafd_settings_read(&settings, conf, 0);
    if (error == 0) {
        error = uafd_settings_open(&settings, is_capture ? UAFD_SPEAKER : UAFD_MIC, &companion);
    }
    if (error < 0) {
        return error;
    }
    uafd_pcm* const pcm = calloc(1, sizeof *pcm);
    if (pcm == NULL) {
        uafd_companion_close(companion);
        return -ENOMEM;
    }
    error = uafd_stream_open(&pcm->stream, companion, is_capture, &pcm->io.appl_ptr);
    if (error < 0) {
        free(pcm);
        return error;
    }
    error = create(pcm, name, stream, mode);
    if (error == 0) {
        *pcmp = pcm->io.pcm;
    }
    return error;
}

// As SND_PCM_PLUGIN_SYMBOL, which has a semicolon too many.
SND_DLSYM_BUILD_VERSION(SND_PCM_PLUGIN_ENTRY(uafd), SND_PCM_DLSYM_VERSION)
