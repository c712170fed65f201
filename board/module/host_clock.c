// SPDX-License-Identifier: GPL-2.0-only
/*
 * The USB host's clock and the switches of its two streams. One timer has all sound moved, a USB
 * frame at a time: it ticks on the host's clock for as long as a stream is on.
 */
#include <linux/hrtimer.h>
#include <linux/math64.h>
#include <linux/seq_file.h>
#include <linux/spinlock.h>
#include <linux/timekeeping.h>
#include <linux/vmalloc.h>
#include "usb_board.h"

#define PARTS			1000000000LL	/* per 10^9, the unit of the clock's offset */
#define SPEAKER_QUEUE_BYTES	(512 * 1024)
#define MIC_QUEUE_BYTES		(4 * 1024 * 1024)

/* What a USB frame leaves to be done without the lock. */
struct errand {
	struct vexa_stream *stream;	/* the PCM that ran, pinned, or NULL */
	enum injury injury;
	bool period;
};

static struct host_stream streams[VEXA_DIRS];
static DEFINE_SPINLOCK(host_lock);
static struct hrtimer timer;
static bool ticking;	/* the timer is or will be queued */
static int offset_ppb;
static u64 next_ns;	/* when the next USB frame is due */
static u64 next_rest;	/* and what it lacks, in parts per (10^9 + offset) of a nanosecond */

struct host_stream *host_stream(enum vexa_dir dir)
{
	return &streams[dir];
}

/* A USB frame lasts USB_FRAME_NS / (1 + offset) of the board's time; the rest is carried over. */
static void advance_clock(void)
{
	u64 divisor = PARTS + offset_ppb;
	u64 remainder;

	next_ns += div64_u64_rem(USB_FRAME_NS * PARTS, divisor, &remainder);
	next_rest += remainder;
	if (next_rest >= divisor) {
		next_rest -= divisor;
		next_ns++;
	}
}

static void run_errand(const struct errand *errand)
{
	if (!errand->stream)
		return;
	if (errand->period)
		gadget_pcm_period(errand->stream);
	if (errand->injury == INJURY_XRUN)
		gadget_pcm_xrun(errand->stream);
	else if (errand->injury == INJURY_SUSPEND)
		gadget_pcm_suspend(errand->stream);
	vexa_put_running(errand->stream);
}

/* Leaves in the errand what is to be done about the PCM afterwards. */
static void move_frame(enum vexa_dir dir, struct errand *errand)
{
	struct host_stream *host = &streams[dir];

	if (!host->on || host->stalled)
		return;
	errand->stream = vexa_get_running(dir);
	errand->period = usb_frame(host, errand->stream, next_ns);
	if (host->injury && host->frames >= host->injury_at) {
		errand->injury = host->injury;
		host->injury = INJURY_NONE;
	}
}

static void wake_host(struct host_stream *host)
{
	if (wq_has_sleeper(&host->wait) && host_audio_ready(host))
		wake_up_interruptible(&host->wait);
}

/* Moves the USB frame that is due, if one is; false: the clock has nothing left to do. */
static bool tick(struct errand *errands, bool *moved)
{
	enum vexa_dir dir;

	spin_lock(&host_lock);
	ticking = streams[VEXA_SPEAKER].on || streams[VEXA_MIC].on;
	*moved = ticking && ktime_get_ns() >= next_ns;
	if (*moved) {
		for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++)
			move_frame(dir, &errands[dir]);
		advance_clock();
	} else if (ticking) {
		hrtimer_set_expires(&timer, ns_to_ktime(next_ns));
	}
	spin_unlock(&host_lock);
	return *moved || ticking;
}

static enum hrtimer_restart host_tick(struct hrtimer *unused)
{
	bool moved;

	for (;;) {
		struct errand errands[VEXA_DIRS] = {};
		enum vexa_dir dir;

		if (!tick(errands, &moved))
			return HRTIMER_NORESTART;
		if (!moved)
			return HRTIMER_RESTART;
		for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++) {
			run_errand(&errands[dir]);
			wake_host(&streams[dir]);
		}
	}
}

/* Starts the clock when it stands; the caller holds host_lock. */
static void start_clock(void)
{
	if (ticking)
		return;
	ticking = true;
	next_ns = ktime_get_ns();
	next_rest = 0;
	advance_clock();
	hrtimer_start(&timer, ns_to_ktime(next_ns), HRTIMER_MODE_ABS);
}

void host_stream_switch(enum vexa_dir dir, bool on)
{
	struct host_stream *host = &streams[dir];

	spin_lock_irq(&host_lock);
	if (on && !host->on) {
		start_clock();
		host->on_ns = next_ns - div64_u64(USB_FRAME_NS * PARTS, PARTS + offset_ppb);
		host->on_frames = host->frames;
		host->first_ns = 0;
		host->dry = false;
	}
	host->on = on;
	spin_unlock_irq(&host_lock);
	wake_up_interruptible(&host->wait);
}

void host_stream_stall(enum vexa_dir dir, bool stalled)
{
	spin_lock_irq(&host_lock);
	streams[dir].stalled = stalled;
	spin_unlock_irq(&host_lock);
}

bool host_stream_trigger(struct snd_pcm_substream *substream, int command)
{
	struct vexa_stream *stream = vexa_stream_of(substream);
	struct host_stream *host = &streams[stream->dir];
	unsigned long flags;
	bool ran;

	spin_lock_irqsave(&host_lock, flags);
	ran = vexa_stream_runs(stream);
	vexa_pcm_ops.trigger(substream, command);
	if (vexa_stream_runs(stream))
		host->start_frames = host->frames;
	spin_unlock_irqrestore(&host_lock, flags);
	return ran;
}

int host_stream_injure(enum vexa_dir dir, enum injury injury)
{
	struct errand errand = { .stream = vexa_get_running(dir), .injury = injury };

	run_errand(&errand);
	return errand.stream ? 0 : -ENXIO;
}

void host_stream_injure_at(enum vexa_dir dir, enum injury injury, u64 frames)
{
	spin_lock_irq(&host_lock);
	streams[dir].injury = injury;
	streams[dir].injury_at = frames;
	spin_unlock_irq(&host_lock);
}

void host_stream_flush(enum vexa_dir dir)
{
	mutex_lock(&streams[dir].user_end);
	spin_lock_irq(&host_lock);
	kfifo_reset(&streams[dir].queue);
	spin_unlock_irq(&host_lock);
	mutex_unlock(&streams[dir].user_end);
	wake_up_interruptible(&streams[dir].wait);
}

void host_clock_offset(int ppb)
{
	spin_lock_irq(&host_lock);
	offset_ppb = ppb;
	next_rest = 0;
	spin_unlock_irq(&host_lock);
}

static void show_stream(struct seq_file *seq, enum vexa_dir dir)
{
	const char *name = usb_dir_names[dir];
	struct host_stream host;

	spin_lock_irq(&host_lock);
	host = streams[dir];
	spin_unlock_irq(&host_lock);
	seq_printf(seq, "%s.on %d\n%s.on_ns %llu\n%s.on_frames %llu\n", name, host.on, name,
		   host.on_ns, name, host.on_frames);
	seq_printf(seq, "%s.frames %llu\n%s.last_ns %llu\n", name, host.frames, name, host.last_ns);
	seq_printf(seq, "%s.first_ns %llu\n%s.first_frames %llu\n", name, host.first_ns, name,
		   host.first_frames);
	seq_printf(seq, "%s.start_frames %llu\n", name, host.start_frames);
	seq_printf(seq, "%s.queued %u\n", name, kfifo_len(&host.queue) / (u32)sizeof(s16));
	seq_printf(seq, "%s.silent %llu\n%s.dry %llu\n", name, host.silent, name, host.dry_spells);
	seq_printf(seq, "%s.%s %llu\n", name, dir == VEXA_SPEAKER ? "lost" : "dropped", host.lost);
	if (dir == VEXA_MIC)
		seq_printf(seq, "%s.stale %llu\n", name, host.stale);
}

void host_clock_show(struct seq_file *seq)
{
	seq_printf(seq, "now_ns %llu\nppb %d\n", ktime_get_ns(), READ_ONCE(offset_ppb));
	show_stream(seq, VEXA_SPEAKER);
	show_stream(seq, VEXA_MIC);
}

static int stream_init(enum vexa_dir dir, unsigned int bytes)
{
	void *buffer = vmalloc(bytes);

	init_waitqueue_head(&streams[dir].wait);
	mutex_init(&streams[dir].user_end);
	return buffer ? kfifo_init(&streams[dir].queue, buffer, bytes) : -ENOMEM;
}

static void free_queues(void)
{
	vfree(streams[VEXA_SPEAKER].queue.kfifo.data);
	vfree(streams[VEXA_MIC].queue.kfifo.data);
}

int host_clock_init(void)
{
	int err = stream_init(VEXA_SPEAKER, SPEAKER_QUEUE_BYTES);

	if (!err)
		err = stream_init(VEXA_MIC, MIC_QUEUE_BYTES);
	if (err)
		free_queues();
	hrtimer_init(&timer, CLOCK_MONOTONIC, HRTIMER_MODE_ABS);
	timer.function = host_tick;
	return err;
}

void host_clock_exit(void)
{
	host_stream_switch(VEXA_SPEAKER, false);
	host_stream_switch(VEXA_MIC, false);
	hrtimer_cancel(&timer);
	free_queues();
}
