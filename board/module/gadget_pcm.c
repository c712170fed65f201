// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget card's PCM, gadget/pcm.c, with a log of its operations, their faults and their counters.
 */
#include <linux/preempt.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include <sound/core.h>
#include <sound/pcm.h>
#include "usb_board.h"

static const char *const count_names[PCM_COUNTS] = {
	"opens", "closes", "starts", "stops", "xruns", "suspends", "resumes", "periods",
};

static atomic64_t counts[VEXA_DIRS][PCM_COUNTS];

void gadget_pcm_count(enum vexa_dir dir, enum pcm_count what)
{
	atomic64_inc(&counts[dir][what]);
}

static struct gadget_handle *handle_of(struct snd_pcm_substream *substream)
{
	return substream->runtime->private_data;
}

static void free_handle(struct snd_pcm_runtime *runtime)
{
	kfree(runtime->private_data);
}

static int open_handle(struct snd_pcm_substream *substream, enum vexa_dir dir)
{
	struct gadget_handle *handle = kzalloc(sizeof(*handle), GFP_KERNEL);
	int err;

	if (!handle)
		return -ENOMEM;
	handle->dir = dir;
	substream->runtime->private_data = handle;
	substream->runtime->private_free = free_handle;
	err = vexa_pcm_ops.open(substream);
	return err ? err : gadget_pcm_limit_choices(substream);
}

static int gadget_open(struct snd_pcm_substream *substream)
{
	enum vexa_dir dir = vexa_stream_of(substream)->dir;
	int err = fault_result(FAULT_OPEN + dir);

	if (!err)
		err = open_handle(substream, dir);
	if (!err)
		gadget_pcm_count(dir, PCM_OPENS);
	event_log("%s open %d", pcm_dir_names[dir], err);
	return err;
}

static int gadget_close(struct snd_pcm_substream *substream)
{
	enum vexa_dir dir = handle_of(substream)->dir;
	int err = vexa_pcm_ops.close(substream);

	gadget_pcm_count(dir, PCM_CLOSES);
	event_log("%s close", pcm_dir_names[dir]);
	return err;
}

static int gadget_hw_params(struct snd_pcm_substream *substream, struct snd_pcm_hw_params *params)
{
	enum vexa_dir dir = handle_of(substream)->dir;
	int err = fault_result(FAULT_HW_PARAMS + dir);

	event_log("%s hw_params %d rate=%u channels=%u period=%u buffer=%u",
		  pcm_dir_names[dir], err, params_rate(params), params_channels(params),
		  params_period_size(params), params_buffer_size(params));
	return err;
}

static int gadget_prepare(struct snd_pcm_substream *substream)
{
	enum vexa_dir dir = handle_of(substream)->dir;
	int err = fault_result(FAULT_PREPARE + dir);
	int ignored;

	if (!err)
		err = vexa_pcm_ops.prepare(substream);
	event_log("%s prepare %d", pcm_dir_names[dir], err);
	if (!err && fault_take(FAULT_UNPLUG + dir, &ignored))
		gadget_card_remove_now();
	return err;
}

static int start(struct snd_pcm_substream *substream, int command)
{
	bool resume = command == SNDRV_PCM_TRIGGER_RESUME;
	enum vexa_dir dir = handle_of(substream)->dir;
	int err = fault_result((resume ? FAULT_RESUME : FAULT_START) + dir);

	if (!err) {
		host_stream_trigger(substream, command);
		gadget_pcm_count(dir, resume ? PCM_RESUMES : PCM_STARTS);
	}
	event_log("%s %s %d", pcm_dir_names[dir], resume ? "resume" : "start", err);
	return err;
}

/* The sound core gives no reason for a stop, but stops for an xrun at exactly this limit. */
static bool looks_like_xrun(struct snd_pcm_runtime *runtime, enum vexa_dir dir)
{
	snd_pcm_uframes_t avail = dir == VEXA_SPEAKER ? snd_pcm_capture_avail(runtime) :
							snd_pcm_playback_avail(runtime);

	return avail >= runtime->stop_threshold;
}

static void stop(struct snd_pcm_substream *substream, int command)
{
	struct gadget_handle *handle = handle_of(substream);
	const char *reason = handle->stop_reason;

	handle->stop_reason = NULL;
	if (!host_stream_trigger(substream, command))	/* undoes a start that failed */
		return;
	if (!reason)
		reason = looks_like_xrun(substream->runtime, handle->dir) ? "xrun" : "stop";
	if (!strcmp(reason, "xrun"))
		gadget_pcm_count(handle->dir, PCM_XRUNS);
	if (!strcmp(reason, "suspend"))
		gadget_pcm_count(handle->dir, PCM_SUSPENDS);
	gadget_pcm_count(handle->dir, PCM_STOPS);
	event_log("%s %s", pcm_dir_names[handle->dir], reason);
}

static int gadget_trigger(struct snd_pcm_substream *substream, int command)
{
	switch (command) {
	case SNDRV_PCM_TRIGGER_START:
	case SNDRV_PCM_TRIGGER_RESUME:
		return start(substream, command);
	case SNDRV_PCM_TRIGGER_STOP:
	case SNDRV_PCM_TRIGGER_SUSPEND:
		stop(substream, command);
		return 0;
	default:
		return -EINVAL;
	}
}

/*
 * The core's own entry suspends both directions of a PCM at once; this is what it does to each.
 * The caller holds the stream lock.
 */
static void suspend(struct snd_pcm_substream *substream)
{
	struct snd_pcm_runtime *runtime = substream->runtime;

	handle_of(substream)->stop_reason = "suspend";
	runtime->suspended_state = runtime->state;
	snd_pcm_stop(substream, SNDRV_PCM_STATE_SUSPENDED);
}

static snd_pcm_uframes_t gadget_pointer(struct snd_pcm_substream *substream)
{
	struct gadget_handle *handle = handle_of(substream);
	int error;

	/* Outside the host's clock it is a read or a write of the program that asks. */
	if (!in_hardirq() && fault_take(FAULT_TRANSFER + handle->dir, &error)) {
		if (error == EPIPE) {
			handle->stop_reason = "xrun";
			return SNDRV_PCM_POS_XRUN;
		}
		suspend(substream);
	}
	return vexa_pcm_ops.pointer(substream);
}

/* After a read or write of the program has copied, before the sound core counts it. */
static int gadget_ack(struct snd_pcm_substream *substream)
{
	return fault_result(FAULT_ACK + handle_of(substream)->dir);
}

static int gadget_sync_stop(struct snd_pcm_substream *substream)
{
	return vexa_pcm_ops.sync_stop(substream);
}

const struct snd_pcm_ops gadget_pcm_ops = {
	.open = gadget_open,
	.close = gadget_close,
	.hw_params = gadget_hw_params,
	.prepare = gadget_prepare,
	.trigger = gadget_trigger,
	.sync_stop = gadget_sync_stop,
	.pointer = gadget_pointer,
	.ack = gadget_ack,
};

void gadget_pcm_xrun(struct vexa_stream *stream)
{
	struct snd_pcm_substream *substream = stream->substream;
	unsigned long flags;

	snd_pcm_stream_lock_irqsave(substream, flags);
	if (snd_pcm_running(substream)) {
		handle_of(substream)->stop_reason = "xrun";
		snd_pcm_stop(substream, SNDRV_PCM_STATE_XRUN);
	}
	snd_pcm_stream_unlock_irqrestore(substream, flags);
}

void gadget_pcm_suspend(struct vexa_stream *stream)
{
	struct snd_pcm_substream *substream = stream->substream;
	unsigned long flags;

	snd_pcm_stream_lock_irqsave(substream, flags);
	if (snd_pcm_running(substream))
		suspend(substream);
	snd_pcm_stream_unlock_irqrestore(substream, flags);
}

void gadget_pcm_period(struct vexa_stream *stream)
{
	gadget_pcm_count(stream->dir, PCM_PERIODS);
	snd_pcm_period_elapsed(stream->substream);
}

void gadget_pcm_show(struct seq_file *seq)
{
	enum vexa_dir dir;
	int what;

	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++)
		for (what = 0; what < PCM_COUNTS; what++)
			seq_printf(seq, "%s.%s %lld\n", pcm_dir_names[dir], count_names[what],
				   atomic64_read(&counts[dir][what]));
}
