// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget card's PCM: its operations, as the sound core calls them for the daemon.
 */
#include <linux/preempt.h>
#include <linux/seq_file.h>
#include <sound/core.h>
#include <sound/pcm.h>
#include "usb_board.h"

#define GADGET_BUFFER_BYTES	(128 * 1024)
#define GADGET_PERIODS_MAX	1024

static const struct snd_pcm_hardware gadget_hardware = {
	.info = SNDRV_PCM_INFO_MMAP | SNDRV_PCM_INFO_MMAP_VALID | SNDRV_PCM_INFO_INTERLEAVED |
		SNDRV_PCM_INFO_BLOCK_TRANSFER | SNDRV_PCM_INFO_BATCH | SNDRV_PCM_INFO_RESUME,
	.formats = SNDRV_PCM_FMTBIT_S16_LE,
	.rates = SNDRV_PCM_RATE_48000,
	.rate_min = USB_BOARD_RATE,
	.rate_max = USB_BOARD_RATE,
	.channels_min = 1,
	.channels_max = 1,
	.buffer_bytes_max = GADGET_BUFFER_BYTES,
	.period_bytes_min = USB_FRAME_SAMPLES * sizeof(s16),
	.period_bytes_max = GADGET_BUFFER_BYTES / 2,
	.periods_min = 2,
	.periods_max = GADGET_PERIODS_MAX,
};

static const char *const count_names[PCM_COUNTS] = {
	"opens", "closes", "starts", "stops", "xruns", "suspends", "resumes", "periods",
};

static atomic64_t counts[USB_DIRS][PCM_COUNTS];

void gadget_pcm_count(enum usb_dir dir, enum pcm_count what)
{
	atomic64_inc(&counts[dir][what]);
}

static struct gadget_stream *stream_of(struct snd_pcm_substream *substream)
{
	struct gadget_stream *streams = snd_pcm_substream_chip(substream);

	return &streams[substream->stream == SNDRV_PCM_STREAM_CAPTURE ? SPEAKER : MIC];
}

static int gadget_open(struct snd_pcm_substream *substream)
{
	struct gadget_stream *stream = stream_of(substream);
	int err = fault_result(FAULT_OPEN + stream->dir);

	if (!err) {
		substream->runtime->hw = gadget_hardware;
		stream->substream = substream;
		err = gadget_pcm_limit_choices(stream);
	}
	if (!err) {
		stream->stop_reason = NULL;
		gadget_pcm_count(stream->dir, PCM_OPENS);
	}
	event_log("%s open %d", pcm_dir_names[stream->dir], err);
	return err;
}

/* Pinned streams are only used with interrupts off, so this is a matter of microseconds. */
static void wait_for_pins(struct gadget_stream *stream)
{
	while (atomic_read_acquire(&stream->pins))
		cpu_relax();
}

static int gadget_sync_stop(struct snd_pcm_substream *substream)
{
	wait_for_pins(stream_of(substream));
	return 0;
}

static int gadget_close(struct snd_pcm_substream *substream)
{
	struct gadget_stream *stream = stream_of(substream);

	host_stream_detach(stream);
	wait_for_pins(stream);
	stream->substream = NULL;
	gadget_pcm_count(stream->dir, PCM_CLOSES);
	event_log("%s close", pcm_dir_names[stream->dir]);
	return 0;
}

static int gadget_hw_params(struct snd_pcm_substream *substream, struct snd_pcm_hw_params *params)
{
	struct gadget_stream *stream = stream_of(substream);
	int err = fault_result(FAULT_HW_PARAMS + stream->dir);

	event_log("%s hw_params %d rate=%u channels=%u period=%u buffer=%u",
		  pcm_dir_names[stream->dir], err, params_rate(params), params_channels(params),
		  params_period_size(params), params_buffer_size(params));
	return err;
}

static int gadget_prepare(struct snd_pcm_substream *substream)
{
	struct gadget_stream *stream = stream_of(substream);
	int err = fault_result(FAULT_PREPARE + stream->dir);
	int ignored;

	if (!err) {
		stream->position = 0;
		stream->into_period = 0;
		stream->moved = 0;
	}
	event_log("%s prepare %d", pcm_dir_names[stream->dir], err);
	if (!err && fault_take(FAULT_UNPLUG + stream->dir, &ignored))
		gadget_card_remove_now();
	return err;
}

static int start(struct gadget_stream *stream, enum fault_point fault, enum pcm_count what,
		 const char *name)
{
	int err = fault_result(fault + stream->dir);

	if (!err) {
		host_stream_attach(stream);
		gadget_pcm_count(stream->dir, what);
	}
	event_log("%s %s %d", pcm_dir_names[stream->dir], name, err);
	return err;
}

/* The sound core gives no reason for a stop, but stops for an xrun at exactly this limit. */
static bool looks_like_xrun(struct snd_pcm_runtime *runtime, enum usb_dir dir)
{
	snd_pcm_uframes_t avail = dir == SPEAKER ? snd_pcm_capture_avail(runtime) :
						   snd_pcm_playback_avail(runtime);

	return avail >= runtime->stop_threshold;
}

static void stop(struct gadget_stream *stream)
{
	const char *reason = stream->stop_reason;

	stream->stop_reason = NULL;
	if (!host_stream_detach(stream))	/* undoes a start that failed */
		return;
	if (!reason)
		reason = looks_like_xrun(stream->substream->runtime, stream->dir) ? "xrun" : "stop";
	if (!strcmp(reason, "xrun"))
		gadget_pcm_count(stream->dir, PCM_XRUNS);
	if (!strcmp(reason, "suspend"))
		gadget_pcm_count(stream->dir, PCM_SUSPENDS);
	gadget_pcm_count(stream->dir, PCM_STOPS);
	event_log("%s %s", pcm_dir_names[stream->dir], reason);
}

static int gadget_trigger(struct snd_pcm_substream *substream, int command)
{
	struct gadget_stream *stream = stream_of(substream);

	switch (command) {
	case SNDRV_PCM_TRIGGER_START:
		return start(stream, FAULT_START, PCM_STARTS, "start");
	case SNDRV_PCM_TRIGGER_RESUME:
		return start(stream, FAULT_RESUME, PCM_RESUMES, "resume");
	case SNDRV_PCM_TRIGGER_STOP:
	case SNDRV_PCM_TRIGGER_SUSPEND:
		stop(stream);
		return 0;
	default:
		return -EINVAL;
	}
}

/*
 * The core's own entry suspends both directions of a PCM at once; this is what it does to each.
 * The caller holds the stream lock.
 */
static void suspend(struct gadget_stream *stream)
{
	struct snd_pcm_runtime *runtime = stream->substream->runtime;

	stream->stop_reason = "suspend";
	runtime->suspended_state = runtime->state;
	snd_pcm_stop(stream->substream, SNDRV_PCM_STATE_SUSPENDED);
}

static snd_pcm_uframes_t gadget_pointer(struct snd_pcm_substream *substream)
{
	struct gadget_stream *stream = stream_of(substream);
	int error;

	/* Outside the host's clock it is a read or a write of the program that asks. */
	if (!in_hardirq() && fault_take(FAULT_TRANSFER + stream->dir, &error)) {
		if (error == EPIPE) {
			stream->stop_reason = "xrun";
			return SNDRV_PCM_POS_XRUN;
		}
		suspend(stream);
	}
	/* Pairs with the release in the clock: frames before this position are in the ring. */
	return smp_load_acquire(&stream->position);
}

/* After a read or write of the program has copied, before the sound core counts it. */
static int gadget_ack(struct snd_pcm_substream *substream)
{
	return fault_result(FAULT_ACK + stream_of(substream)->dir);
}

static const struct snd_pcm_ops gadget_ops = {
	.open = gadget_open,
	.close = gadget_close,
	.hw_params = gadget_hw_params,
	.prepare = gadget_prepare,
	.trigger = gadget_trigger,
	.sync_stop = gadget_sync_stop,
	.pointer = gadget_pointer,
	.ack = gadget_ack,
};

void gadget_pcm_xrun(struct gadget_stream *stream)
{
	unsigned long flags;

	snd_pcm_stream_lock_irqsave(stream->substream, flags);
	if (snd_pcm_running(stream->substream)) {
		stream->stop_reason = "xrun";
		snd_pcm_stop(stream->substream, SNDRV_PCM_STATE_XRUN);
	}
	snd_pcm_stream_unlock_irqrestore(stream->substream, flags);
}

void gadget_pcm_suspend(struct gadget_stream *stream)
{
	unsigned long flags;

	snd_pcm_stream_lock_irqsave(stream->substream, flags);
	if (snd_pcm_running(stream->substream))
		suspend(stream);
	snd_pcm_stream_unlock_irqrestore(stream->substream, flags);
}

void gadget_pcm_period(struct gadget_stream *stream)
{
	gadget_pcm_count(stream->dir, PCM_PERIODS);
	snd_pcm_period_elapsed(stream->substream);
}

int gadget_pcm_new(struct snd_card *card, struct gadget_stream *streams)
{
	struct snd_pcm *pcm;
	int err = snd_pcm_new(card, "Gadget", 0, 1, 1, &pcm);

	if (err)
		return err;
	streams[SPEAKER].dir = SPEAKER;
	streams[MIC].dir = MIC;
	pcm->private_data = streams;
	strscpy(pcm->name, "Gadget", sizeof(pcm->name));
	snd_pcm_set_ops(pcm, SNDRV_PCM_STREAM_CAPTURE, &gadget_ops);
	snd_pcm_set_ops(pcm, SNDRV_PCM_STREAM_PLAYBACK, &gadget_ops);
	return snd_pcm_set_managed_buffer_all(pcm, SNDRV_DMA_TYPE_VMALLOC, NULL, 0, 0);
}

void gadget_pcm_show(struct seq_file *seq)
{
	enum usb_dir dir;
	int what;

	for (dir = SPEAKER; dir < USB_DIRS; dir++)
		for (what = 0; what < PCM_COUNTS; what++)
			seq_printf(seq, "%s.%s %lld\n", pcm_dir_names[dir], count_names[what],
				   atomic64_read(&counts[dir][what]));
}
