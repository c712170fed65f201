// SPDX-License-Identifier: GPL-2.0-only
/*
 * The event log: what happened, with time stamps, for every reader from the oldest line on.
 */
#include <linux/fs.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/poll.h>
#include <linux/slab.h>
#include <linux/timekeeping.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include "usb_board.h"

#define LOG_LINES	16384
#define LOG_TEXT	104
#define LOG_PRINTED	(LOG_TEXT + 24)	/* with its time and line end */

struct log_line {
	u64 ns;
	char text[LOG_TEXT];
};

struct log_reader {
	struct mutex mutex;	/* one read at a time per opener */
	u64 next;		/* number of the line to read next */
};

static struct log_line *lines;
static u64 line_count;	/* lines ever written; the newest LOG_LINES are kept */
static DEFINE_SPINLOCK(log_lock);
static DECLARE_WAIT_QUEUE_HEAD(log_wait);

void event_log(const char *format, ...)
{
	struct log_line *line;
	unsigned long flags;
	va_list args;

	va_start(args, format);
	spin_lock_irqsave(&log_lock, flags);
	line = &lines[line_count % LOG_LINES];
	line->ns = ktime_get_ns();
	vscnprintf(line->text, sizeof(line->text), format, args);
	WRITE_ONCE(line_count, line_count + 1);
	spin_unlock_irqrestore(&log_lock, flags);
	va_end(args);
	if (wq_has_sleeper(&log_wait))
		wake_up_interruptible(&log_wait);
}

static bool log_has_line(const struct log_reader *reader)
{
	return READ_ONCE(line_count) > reader->next;
}

/* Prints the reader's next line; returns its length, 0 at the end, and moves *next past it. */
static int log_print(u64 *next, char *printed)
{
	u64 oldest;
	int len = 0;

	spin_lock_irq(&log_lock);
	oldest = line_count > LOG_LINES ? line_count - LOG_LINES : 0;
	if (*next < oldest) {
		len = scnprintf(printed, LOG_PRINTED, "0 lost %llu\n", oldest - *next);
		*next = oldest;
	} else if (*next < line_count) {
		const struct log_line *line = &lines[*next % LOG_LINES];

		len = scnprintf(printed, LOG_PRINTED, "%llu %s\n", line->ns, line->text);
		(*next)++;
	}
	spin_unlock_irq(&log_lock);
	return len;
}

/* Copies as many whole lines as fit. */
static ssize_t log_copy(struct log_reader *reader, char __user *buffer, size_t count)
{
	char printed[LOG_PRINTED];
	size_t done = 0;
	u64 next;
	int len;

	for (;;) {
		next = reader->next;
		len = log_print(&next, printed);
		if (!len)
			return done;
		if (len > count - done)
			return done ? done : -EINVAL;
		if (copy_to_user(buffer + done, printed, len))
			return done ? done : -EFAULT;
		reader->next = next;
		done += len;
	}
}

static ssize_t log_read(struct file *file, char __user *buffer, size_t count, loff_t *offset)
{
	struct log_reader *reader = file->private_data;
	ssize_t done;

	do {
		if (!log_has_line(reader) && (file->f_flags & O_NONBLOCK))
			return -EAGAIN;
		if (wait_event_interruptible(log_wait, log_has_line(reader)))
			return -ERESTARTSYS;
		if (mutex_lock_interruptible(&reader->mutex))
			return -ERESTARTSYS;
		done = log_copy(reader, buffer, count);
		mutex_unlock(&reader->mutex);
	} while (!done);
	return done;
}

static __poll_t log_poll(struct file *file, poll_table *table)
{
	poll_wait(file, &log_wait, table);
	return log_has_line(file->private_data) ? EPOLLIN | EPOLLRDNORM : 0;
}

static int log_open(struct inode *inode, struct file *file)
{
	struct log_reader *reader = kzalloc(sizeof(*reader), GFP_KERNEL);
	u64 count;

	if (!reader)
		return -ENOMEM;
	mutex_init(&reader->mutex);
	count = READ_ONCE(line_count);
	reader->next = count > LOG_LINES ? count - LOG_LINES : 0;
	file->private_data = reader;
	return stream_open(inode, file);
}

static int log_release(struct inode *inode, struct file *file)
{
	kfree(file->private_data);
	return 0;
}

static const struct file_operations log_fops = {
	.owner = THIS_MODULE,
	.open = log_open,
	.release = log_release,
	.read = log_read,
	.poll = log_poll,
	.llseek = no_llseek,
};

static struct miscdevice log_device = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = "usb_host_log",
	.fops = &log_fops,
};

int event_log_init(void)
{
	int err;

	lines = vzalloc(array_size(LOG_LINES, sizeof(*lines)));
	if (!lines)
		return -ENOMEM;
	err = misc_register(&log_device);
	if (err)
		vfree(lines);
	return err;
}

void event_log_exit(void)
{
	misc_deregister(&log_device);
	vfree(lines);
}
