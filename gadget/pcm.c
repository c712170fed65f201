// SPDX-License-Identifier: GPL-2.0-only
/*
 * The card's PCM, mono 48 kHz both ways. A packet of the host moves the position of the PCM that runs; while
 * the host sends and takes nothing the PCM stalls, running.
 */
#include <linux/spinlock.h>
#include <linux/string.h>
#include <sound/core.h>
#include <sound/pcm.h>
#include "vexa.h"

#define VEXA_BUFFER_BYTES	(128 * 1024)
#define VEXA_PERIODS_MAX	1024

static const struct snd_pcm_hardware vexa_hardware = {
	.info = SNDRV_PCM_INFO_MMAP | SNDRV_PCM_INFO_MMAP_VALID | SNDRV_PCM_INFO_INTERLEAVED |
		SNDRV_PCM_INFO_BLOCK_TRANSFER | SNDRV_PCM_INFO_BATCH | SNDRV_PCM_INFO_RESUME,
	.formats = SNDRV_PCM_FMTBIT_S16_LE,
	.rates = SNDRV_PCM_RATE_48000,
	.rate_min = VEXA_RATE,
	.rate_max = VEXA_RATE,
	.channels_min = 1,
	.channels_max = 1,
	.buffer_bytes_max = VEXA_BUFFER_BYTES,
	.period_bytes_min = VEXA_PACKET_BYTES,
	.period_bytes_max = VEXA_BUFFER_BYTES / 2,
	.periods_min = 2,
	.periods_max = VEXA_PERIODS_MAX,
};

/* Where the host's packets and the PCM meet. It outlives every card. */
static struct vexa_port {
	spinlock_t lock;		/* inside the PCM stream lock; never held while frames move */
	struct vexa_stream *running;
} ports[VEXA_DIRS] = {
	[VEXA_SPEAKER] = { .lock = __SPIN_LOCK_UNLOCKED(ports[VEXA_SPEAKER].lock) },
	[VEXA_MIC] = { .lock = __SPIN_LOCK_UNLOCKED(ports[VEXA_MIC].lock) },
};

/* Not a part of the stream, which may go as soon as its last pin has. */
static DECLARE_WAIT_QUEUE_HEAD(unpinned);

struct vexa_stream *vexa_stream_of(struct snd_pcm_substream *substream)
{
	struct vexa_stream *streams = snd_pcm_substream_chip(substream);

	return &streams[substream->stream == SNDRV_PCM_STREAM_CAPTURE ? VEXA_SPEAKER : VEXA_MIC];
}

bool vexa_stream_runs(struct vexa_stream *stream)
{
	return READ_ONCE(ports[stream->dir].running) == stream;
}

static void attach(struct vexa_stream *stream)
{
	struct vexa_port *port = &ports[stream->dir];
	unsigned long flags;

	spin_lock_irqsave(&port->lock, flags);
	WRITE_ONCE(port->running, stream);
	spin_unlock_irqrestore(&port->lock, flags);
}

static void detach(struct vexa_stream *stream)
{
	struct vexa_port *port = &ports[stream->dir];
	unsigned long flags;

	/* A stream of a card that is gone must not stop its successor's. */
	spin_lock_irqsave(&port->lock, flags);
	if (port->running == stream)
		WRITE_ONCE(port->running, NULL);
	spin_unlock_irqrestore(&port->lock, flags);
}

struct vexa_stream *vexa_get_running(enum vexa_dir dir)
{
	struct vexa_port *port = &ports[dir];
	struct vexa_stream *stream;
	unsigned long flags;

	spin_lock_irqsave(&port->lock, flags);
	stream = port->running;
	if (stream)
		atomic_inc(&stream->pins);
	spin_unlock_irqrestore(&port->lock, flags);
	return stream;
}

void vexa_put_running(struct vexa_stream *stream)
{
	if (atomic_dec_and_test(&stream->pins) && wq_has_sleeper(&unpinned))
		wake_up(&unpinned);
}

static void wait_for_pins(struct vexa_stream *stream)
{
	wait_event(unpinned, !atomic_read_acquire(&stream->pins));
}

static void copy(struct vexa_stream *stream, void *ring, void *samples, size_t bytes)
{
	if (stream->dir == VEXA_SPEAKER)
		memcpy(ring, samples, bytes);
	else
		memcpy(samples, ring, bytes);
}

bool vexa_move(struct vexa_stream *stream, void *samples, unsigned int frames)
{
	struct snd_pcm_runtime *runtime = stream->substream->runtime;
	unsigned int first = min_t(snd_pcm_uframes_t, frames, runtime->buffer_size - stream->position);
	s16 *ring = (s16 *)runtime->dma_area;
	unsigned int position = stream->position + frames;

	copy(stream, ring + stream->position, samples, first * sizeof(s16));
	copy(stream, ring, (s16 *)samples + first, (frames - first) * sizeof(s16));
	if (position >= runtime->buffer_size)
		position -= runtime->buffer_size;
	/* Pairs with the acquire in the pointer operation. */
	smp_store_release(&stream->position, position);
	stream->moved += frames;
	stream->into_period += frames;
	if (stream->into_period < runtime->period_size)
		return false;
	stream->into_period %= runtime->period_size;
	return true;
}

bool vexa_packet(enum vexa_dir dir, void *samples, unsigned int frames)
{
	struct vexa_stream *stream = vexa_get_running(dir);

	if (!stream)
		return false;
	if (vexa_move(stream, samples, frames))
		snd_pcm_period_elapsed(stream->substream);
	vexa_put_running(stream);
	return true;
}

static int vexa_open(struct snd_pcm_substream *substream)
{
	struct vexa_stream *stream = vexa_stream_of(substream);
	int err;

	substream->runtime->hw = vexa_hardware;
	stream->substream = substream;
	err = snd_pcm_hw_constraint_integer(substream->runtime, SNDRV_PCM_HW_PARAM_PERIODS);
	return min(err, 0);
}

static int vexa_sync_stop(struct snd_pcm_substream *substream)
{
	wait_for_pins(vexa_stream_of(substream));
	return 0;
}

static int vexa_close(struct snd_pcm_substream *substream)
{
	struct vexa_stream *stream = vexa_stream_of(substream);

	detach(stream);
	wait_for_pins(stream);
	stream->substream = NULL;
	return 0;
}

static int vexa_prepare(struct snd_pcm_substream *substream)
{
	struct vexa_stream *stream = vexa_stream_of(substream);

	stream->position = 0;
	stream->into_period = 0;
	stream->moved = 0;
	return 0;
}

static int vexa_trigger(struct snd_pcm_substream *substream, int command)
{
	switch (command) {
	case SNDRV_PCM_TRIGGER_START:
	case SNDRV_PCM_TRIGGER_RESUME:
		attach(vexa_stream_of(substream));
		return 0;
	case SNDRV_PCM_TRIGGER_STOP:
	case SNDRV_PCM_TRIGGER_SUSPEND:
		detach(vexa_stream_of(substream));
		return 0;
	default:
		return -EINVAL;
	}
}

static snd_pcm_uframes_t vexa_pointer(struct snd_pcm_substream *substream)
{
	/* Pairs with the release in vexa_move: frames before this position are in the ring. */
	return smp_load_acquire(&vexa_stream_of(substream)->position);
}

const struct snd_pcm_ops vexa_pcm_ops = {
	.open = vexa_open,
	.close = vexa_close,
	.prepare = vexa_prepare,
	.trigger = vexa_trigger,
	.sync_stop = vexa_sync_stop,
	.pointer = vexa_pointer,
};

int vexa_pcm_new(struct snd_card *card, const struct snd_pcm_ops *ops)
{
	struct vexa_stream *streams = card->private_data;
	struct snd_pcm *pcm;
	int err = snd_pcm_new(card, "Gadget", 0, 1, 1, &pcm);

	if (err)
		return err;
	streams[VEXA_SPEAKER].dir = VEXA_SPEAKER;
	streams[VEXA_MIC].dir = VEXA_MIC;
	pcm->private_data = streams;
	strscpy(pcm->name, "Gadget", sizeof(pcm->name));
	snd_pcm_set_ops(pcm, SNDRV_PCM_STREAM_CAPTURE, ops);
	snd_pcm_set_ops(pcm, SNDRV_PCM_STREAM_PLAYBACK, ops);
	return snd_pcm_set_managed_buffer_all(pcm, SNDRV_DMA_TYPE_VMALLOC, NULL, 0, 0);
}
