// SPDX-License-Identifier: GPL-2.0-only
/*
 * What one USB frame does: moves a millisecond of sound between the host's queue and the ring of
 * the PCM, and counts. Runs in the clock's timer, under host_lock.
 */
#include <linux/minmax.h>
#include "usb_board.h"

static void ring_move(struct gadget_stream *stream, s16 *samples)
{
	struct snd_pcm_runtime *runtime = stream->substream->runtime;
	s16 *ring = (s16 *)runtime->dma_area;
	unsigned int position = stream->position;
	unsigned int i;

	for (i = 0; i < USB_FRAME_SAMPLES; i++) {
		if (stream->dir == SPEAKER)
			ring[position] = samples[i];
		else
			samples[i] = ring[position];
		if (++position == runtime->buffer_size)
			position = 0;
	}
	/* Pairs with the acquire in the pointer operation. */
	smp_store_release(&stream->position, position);
}

static bool ring_advance(struct gadget_stream *stream)
{
	snd_pcm_uframes_t period = stream->substream->runtime->period_size;

	stream->moved += USB_FRAME_SAMPLES;
	stream->into_period += USB_FRAME_SAMPLES;
	if (stream->into_period < period)
		return false;
	stream->into_period %= period;
	return true;
}

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

static void speaker_frame(struct host_stream *host, u64 ns)
{
	s16 samples[USB_FRAME_SAMPLES] = {};
	unsigned int got = kfifo_out(&host->queue, (u8 *)samples, sizeof(samples)) / sizeof(s16);

	if (got)
		note_first(host, ns);
	note_silence(host, USB_FRAME_SAMPLES - got);
	if (host->running)
		ring_move(host->running, samples);
	else
		host->lost += USB_FRAME_SAMPLES;
}

/* Frames from here on that the program has not written yet; the ring's old ones are played. */
static unsigned int stale_frames(const struct gadget_stream *stream)
{
	s64 written = READ_ONCE(stream->substream->runtime->control->appl_ptr) - stream->moved;

	return USB_FRAME_SAMPLES - clamp_t(s64, written, 0, USB_FRAME_SAMPLES);
}

static void mic_frame(struct host_stream *host, u64 ns)
{
	s16 samples[USB_FRAME_SAMPLES] = {};

	if (host->running) {
		note_first(host, ns);
		host->stale += stale_frames(host->running);
		ring_move(host->running, samples);
	}
	note_silence(host, host->running ? 0 : USB_FRAME_SAMPLES);
	if (kfifo_avail(&host->queue) >= sizeof(samples))
		kfifo_in(&host->queue, (u8 *)samples, sizeof(samples));
	else
		host->lost += USB_FRAME_SAMPLES;
}

bool usb_frame(struct host_stream *host, u64 ns)
{
	if (host == host_stream(SPEAKER))
		speaker_frame(host, ns);
	else
		mic_frame(host, ns);
	host->frames += USB_FRAME_SAMPLES;
	host->last_ns = ns;
	return host->running && ring_advance(host->running);
}
