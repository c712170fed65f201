// SPDX-License-Identifier: GPL-2.0-only
/*
 * The board's own sound card: a microphone that records silence on the board's clock, a
 * millisecond at a time. The daemon aligns its start to the running capture of this card.
 */
#include <linux/hrtimer.h>
#include <linux/module.h>
#include <sound/core.h>
#include <sound/pcm.h>
#include "usb_board.h"

/* Programs know the board by this id. */
#define BOARD_ID		"rockchiprt5640c"
#define BOARD_STEP_NS		1000000
#define BOARD_STEP_FRAMES	48
#define BOARD_BUFFER_BYTES	(128 * 1024)

struct board_mic {
	struct snd_pcm_substream *substream;
	struct hrtimer timer;
	bool running;			/* under the PCM's stream lock, or alone */
	unsigned int position;		/* frames into the ring */
	unsigned int into_period;	/* frames since the last period's end */
};

static const struct snd_pcm_hardware board_hardware = {
	.info = SNDRV_PCM_INFO_MMAP | SNDRV_PCM_INFO_MMAP_VALID | SNDRV_PCM_INFO_INTERLEAVED |
		SNDRV_PCM_INFO_BLOCK_TRANSFER,
	.formats = SNDRV_PCM_FMTBIT_S16_LE,
	.rates = SNDRV_PCM_RATE_48000,
	.rate_min = VEXA_RATE,
	.rate_max = VEXA_RATE,
	.channels_min = 1,
	.channels_max = 2,
	.buffer_bytes_max = BOARD_BUFFER_BYTES,
	.period_bytes_min = 2 * BOARD_STEP_FRAMES * sizeof(s16),
	.period_bytes_max = BOARD_BUFFER_BYTES / 2,
	.periods_min = 2,
	.periods_max = 1024,
};

static struct snd_card *card;
static struct board_mic mic;

/* The ring is silent from its allocation on, so only the position moves. */
static bool record(unsigned int frames)
{
	struct snd_pcm_runtime *runtime = mic.substream->runtime;
	unsigned int position = (mic.position + frames) % runtime->buffer_size;

	WRITE_ONCE(mic.position, position);
	mic.into_period += frames;
	if (mic.into_period < runtime->period_size)
		return false;
	mic.into_period %= runtime->period_size;
	return true;
}

static enum hrtimer_restart board_tick(struct hrtimer *timer)
{
	u64 steps;

	if (!READ_ONCE(mic.running))
		return HRTIMER_NORESTART;
	steps = hrtimer_forward_now(timer, ns_to_ktime(BOARD_STEP_NS));
	if (record(steps * BOARD_STEP_FRAMES))
		snd_pcm_period_elapsed(mic.substream);
	return READ_ONCE(mic.running) ? HRTIMER_RESTART : HRTIMER_NORESTART;
}

static int board_open(struct snd_pcm_substream *substream)
{
	substream->runtime->hw = board_hardware;
	mic.substream = substream;
	return 0;
}

static int board_sync_stop(struct snd_pcm_substream *substream)
{
	hrtimer_cancel(&mic.timer);
	return 0;
}

static int board_prepare(struct snd_pcm_substream *substream)
{
	mic.position = 0;
	mic.into_period = 0;
	return 0;
}

static int board_trigger(struct snd_pcm_substream *substream, int command)
{
	switch (command) {
	case SNDRV_PCM_TRIGGER_START:
		WRITE_ONCE(mic.running, true);
		hrtimer_start(&mic.timer, ns_to_ktime(BOARD_STEP_NS), HRTIMER_MODE_REL);
		return 0;
	case SNDRV_PCM_TRIGGER_STOP:
		WRITE_ONCE(mic.running, false);
		return 0;
	default:
		return -EINVAL;
	}
}

static snd_pcm_uframes_t board_pointer(struct snd_pcm_substream *substream)
{
	return READ_ONCE(mic.position);
}

static const struct snd_pcm_ops board_ops = {
	.open = board_open,
	.close = board_sync_stop,
	.prepare = board_prepare,
	.trigger = board_trigger,
	.sync_stop = board_sync_stop,
	.pointer = board_pointer,
};

static int add_mic(void)
{
	struct snd_pcm *pcm;
	int err = snd_pcm_new(card, "Microphone", 0, 0, 1, &pcm);

	if (err)
		return err;
	strscpy(pcm->name, "Microphone", sizeof(pcm->name));
	snd_pcm_set_ops(pcm, SNDRV_PCM_STREAM_CAPTURE, &board_ops);
	return snd_pcm_set_managed_buffer_all(pcm, SNDRV_DMA_TYPE_VMALLOC, NULL, 0, 0);
}

int board_card_init(void)
{
	int err = snd_card_new(board_device, 0, BOARD_ID, THIS_MODULE, 0, &card);

	if (err)
		return err;
	hrtimer_init(&mic.timer, CLOCK_MONOTONIC, HRTIMER_MODE_REL);
	mic.timer.function = board_tick;
	strscpy(card->driver, "Board", sizeof(card->driver));
	strscpy(card->shortname, "Board microphone", sizeof(card->shortname));
	strscpy(card->longname, "Board microphone, silent", sizeof(card->longname));
	err = add_mic();
	if (!err)
		err = snd_card_register(card);
	if (err)
		snd_card_free(card);
	return err;
}

void board_card_exit(void)
{
	snd_card_free(card);
}
