// SPDX-License-Identifier: GPL-2.0-only
/*
 * /proc/usb_host: every part's counters in one text.
 */
#include <linux/errno.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>
#include "usb_board.h"

#define COUNTERS_NAME	"usb_host"

static int counters_show(struct seq_file *seq, void *unused)
{
	host_clock_show(seq);
	mutex_lock(&gadget_mutex);
	gadget_function_show(seq);
	mutex_unlock(&gadget_mutex);
	gadget_pcm_show(seq);
	uac_user_show(seq);
	fault_show(seq);
	return 0;
}

int counters_init(void)
{
	return proc_create_single(COUNTERS_NAME, 0444, NULL, counters_show) ? 0 : -ENOMEM;
}

void counters_exit(void)
{
	remove_proc_entry(COUNTERS_NAME, NULL);
}
