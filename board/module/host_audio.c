// SPDX-License-Identifier: GPL-2.0-only
/*
 * The host's sound devices: test programs write what the host plays and read what it records.
 */
#include <linux/fs.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/poll.h>
#include "usb_board.h"

/* Programs are woken for this much at least, so that they do not follow every USB frame. */
#define PLAY_ROOM_BYTES		(100 * VEXA_PACKET_FRAMES * sizeof(s16))
#define RECORDED_BYTES		(10 * VEXA_PACKET_FRAMES * sizeof(s16))

static bool has_room(struct host_stream *host)
{
	return kfifo_avail(&host->queue) >= PLAY_ROOM_BYTES;
}

/* When the stream is off no more sound will come: what there is will do. */
static bool has_recorded(struct host_stream *host)
{
	return kfifo_len(&host->queue) >= (READ_ONCE(host->on) ? RECORDED_BYTES : 1);
}

bool host_audio_ready(struct host_stream *host)
{
	return host == host_stream(VEXA_SPEAKER) ? has_room(host) : has_recorded(host);
}

static ssize_t speaker_write(struct file *file, const char __user *buffer, size_t count,
			     loff_t *offset)
{
	struct host_stream *host = host_stream(VEXA_SPEAKER);
	unsigned int done = 0;
	int err;

	count = round_down(count, sizeof(s16));
	if (!count)
		return -EINVAL;
	for (;;) {
		if (mutex_lock_interruptible(&host->user_end))
			return -ERESTARTSYS;
		err = kfifo_from_user(&host->queue, buffer, count, &done);
		mutex_unlock(&host->user_end);
		if (err)
			return err;
		if (done)
			return done;
		if (file->f_flags & O_NONBLOCK)
			return -EAGAIN;
		if (wait_event_interruptible(host->wait, has_room(host)))
			return -ERESTARTSYS;
	}
}

static __poll_t speaker_poll(struct file *file, poll_table *table)
{
	struct host_stream *host = host_stream(VEXA_SPEAKER);

	poll_wait(file, &host->wait, table);
	return has_room(host) ? EPOLLOUT | EPOLLWRNORM : 0;
}

static ssize_t mic_read(struct file *file, char __user *buffer, size_t count, loff_t *offset)
{
	struct host_stream *host = host_stream(VEXA_MIC);
	unsigned int done = 0;
	int err;

	count = round_down(count, sizeof(s16));
	if (!count)
		return -EINVAL;
	do {
		if (!(file->f_flags & O_NONBLOCK) &&
		    wait_event_interruptible(host->wait, has_recorded(host)))
			return -ERESTARTSYS;
		if (mutex_lock_interruptible(&host->user_end))
			return -ERESTARTSYS;
		err = kfifo_to_user(&host->queue, buffer, count, &done);
		mutex_unlock(&host->user_end);
		if (err)
			return err;
		if (done)
			return done;
	} while (!(file->f_flags & O_NONBLOCK));
	return -EAGAIN;
}

static __poll_t mic_poll(struct file *file, poll_table *table)
{
	struct host_stream *host = host_stream(VEXA_MIC);

	poll_wait(file, &host->wait, table);
	return has_recorded(host) ? EPOLLIN | EPOLLRDNORM : 0;
}


static const struct file_operations speaker_fops = {
	.owner = THIS_MODULE,
	.open = stream_open,
	.write = speaker_write,
	.poll = speaker_poll,
	.llseek = no_llseek,
};

static const struct file_operations mic_fops = {
	.owner = THIS_MODULE,
	.open = stream_open,
	.read = mic_read,
	.poll = mic_poll,
	.llseek = no_llseek,
};

static struct miscdevice devices[VEXA_DIRS] = {
	{ .minor = MISC_DYNAMIC_MINOR, .name = "usb_host_speaker", .fops = &speaker_fops },
	{ .minor = MISC_DYNAMIC_MINOR, .name = "usb_host_mic", .fops = &mic_fops },
};

int host_audio_init(void)
{
	int err = misc_register(&devices[VEXA_SPEAKER]);

	if (err)
		return err;
	err = misc_register(&devices[VEXA_MIC]);
	if (err)
		misc_deregister(&devices[VEXA_SPEAKER]);
	return err;
}

void host_audio_exit(void)
{
	misc_deregister(&devices[VEXA_MIC]);
	misc_deregister(&devices[VEXA_SPEAKER]);
}
