// SPDX-License-Identifier: GPL-2.0-only
/*
 * What one USB frame does: moves a millisecond of sound between the host's queue and the PCM that
 * runs, and counts. Runs in the clock's timer, under host_lock.
 */
#include <linux/minmax.h>
#include "usb_board.h"

static void note_silence(struct host_stream *host, unsigned int frames)
{
	host->silent += frames;
	if (frames && !host->dry)
		host->dry_spells++;
	host->dry = frames;
}

static void note_first(struct host_stream *host, u64 ns)
{
	if (host->first_ns)
		return;
	host->first_ns = ns;
	host->first_frames = host->frames;
}

static bool speaker_frame(struct host_stream *host, struct vexa_stream *stream, u64 ns)
{
	s16 samples[VEXA_PACKET_FRAMES] = {};
	unsigned int got = kfifo_out(&host->queue, (u8 *)samples, sizeof(samples)) / sizeof(s16);

	if (got)
		note_first(host, ns);
	note_silence(host, VEXA_PACKET_FRAMES - got);
	if (stream)
		return vexa_move(stream, samples, VEXA_PACKET_FRAMES);
	host->lost += VEXA_PACKET_FRAMES;
	return false;
}

/* Frames from here on that the program has not written yet; the ring's old ones are played. */
static unsigned int stale_frames(const struct vexa_stream *stream)
{
	s64 written = READ_ONCE(stream->substream->runtime->control->appl_ptr) - stream->moved;

	return VEXA_PACKET_FRAMES - clamp_t(s64, written, 0, VEXA_PACKET_FRAMES);
}

static bool mic_frame(struct host_stream *host, struct vexa_stream *stream, u64 ns)
{
	s16 samples[VEXA_PACKET_FRAMES] = {};
	bool period = false;

	if (stream) {
		note_first(host, ns);
		host->stale += stale_frames(stream);
		period = vexa_move(stream, samples, VEXA_PACKET_FRAMES);
	}
	note_silence(host, stream ? 0 : VEXA_PACKET_FRAMES);
	if (kfifo_avail(&host->queue) >= sizeof(samples))
		kfifo_in(&host->queue, (u8 *)samples, sizeof(samples));
	else
		host->lost += VEXA_PACKET_FRAMES;
	return period;
}

bool usb_frame(struct host_stream *host, struct vexa_stream *stream, u64 ns)
{
	bool period = host == host_stream(VEXA_SPEAKER) ? speaker_frame(host, stream, ns) :
							  mic_frame(host, stream, ns);

	host->frames += VEXA_PACKET_FRAMES;
	host->last_ns = ns;
	return period;
}
