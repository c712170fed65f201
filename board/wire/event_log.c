// SPDX-License-Identifier: GPL-2.0-only
/*
 * /proc/usb_wire_log: what happened, the last LOG_LINES lines, "NS MICROFRAME TEXT" each.
 */
#include <linux/ktime.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>
#include <linux/spinlock.h>
#include <linux/vmalloc.h>
#include "usb_wire.h"

#define LOG_NAME	"usb_wire_log"
#define LOG_LINES	4096
#define LOG_TEXT	80

struct log_line {
	u64 ns, uframe;
	char text[LOG_TEXT];
};

static struct log_line *lines;
static u64 line_count;		/* lines ever written */
static DEFINE_SPINLOCK(log_lock);

/**
 * wire_log() - note what happens
 * @uframe: the microframe in which it does by the host's clock
 * @format: the text
 */
void wire_log(u64 uframe, const char *format, ...)
{
	struct log_line *line;
	unsigned long flags;
	va_list args;

	va_start(args, format);
	spin_lock_irqsave(&log_lock, flags);
	line = &lines[line_count++ % LOG_LINES];
	line->ns = ktime_get_ns();
	line->uframe = uframe;
	vscnprintf(line->text, sizeof(line->text), format, args);
	spin_unlock_irqrestore(&log_lock, flags);
	va_end(args);
}

/* The position is the number of the line; one that has been overwritten is passed over. */
static void *log_start(struct seq_file *seq, loff_t *position)
{
	u64 oldest;
	bool any;

	spin_lock_irq(&log_lock);
	oldest = line_count > LOG_LINES ? line_count - LOG_LINES : 0;
	*position = max_t(u64, *position, oldest);
	any = *position < line_count;
	spin_unlock_irq(&log_lock);
	return any ? position : NULL;
}

static void *log_next(struct seq_file *seq, void *current_line, loff_t *position)
{
	++*position;
	return log_start(seq, position);
}

static void log_stop(struct seq_file *seq, void *current_line)
{
}

static int log_show(struct seq_file *seq, void *current_line)
{
	struct log_line line;

	spin_lock_irq(&log_lock);
	line = lines[*(loff_t *)current_line % LOG_LINES];
	spin_unlock_irq(&log_lock);
	seq_printf(seq, "%llu %llu %s\n", line.ns, line.uframe, line.text);
	return 0;
}

static const struct seq_operations log_ops = {
	.start = log_start,
	.next = log_next,
	.stop = log_stop,
	.show = log_show,
};

int wire_log_init(void)
{
	lines = vzalloc(array_size(LOG_LINES, sizeof(*lines)));
	if (!lines)
		return -ENOMEM;
	if (proc_create_seq(LOG_NAME, 0444, NULL, &log_ops))
		return 0;
	vfree(lines);
	return -ENOMEM;
}

void wire_log_exit(void)
{
	remove_proc_entry(LOG_NAME, NULL);
	vfree(lines);
}
