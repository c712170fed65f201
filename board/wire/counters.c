// SPDX-License-Identifier: GPL-2.0-only
/*
 * /proc/usb_wire: clock, state and counters, "KEY VALUE" lines.
 */
#include <linux/ktime.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include "usb_wire.h"

#define COUNTERS_NAME	KBUILD_MODNAME

static void show_wire(struct seq_file *seq)
{
	u64 now, uframe, uframe_ns, late;
	struct wire_clock clock;
	bool silent, suspended;
	unsigned int planned;
	u32 port;

	spin_lock_irq(&wire.lock);
	now = ktime_get_ns();
	uframe = wire_uframe();
	uframe_ns = wire_uframe_ns(uframe);
	clock = wire.clock;
	port = wire.port;
	silent = wire.silent;
	suspended = wire.suspended;
	planned = wire.planned_count;
	late = wire.late_ns_max;
	spin_unlock_irq(&wire.lock);
	seq_printf(seq, "now_ns %llu\nuframe %llu\nuframe_ns %llu\n", now, uframe, uframe_ns);
	seq_printf(seq, "ppb %d\nppb_uframe %llu\nppb_ns %llu\n", clock.ppb,
		   clock.since, clock.since_ns);
	seq_printf(seq, "attached %d\nenabled %d\nhigh_speed %d\n",
		   !!(port & USB_PORT_STAT_CONNECTION), !!(port & USB_PORT_STAT_ENABLE),
		   !!(port & USB_PORT_STAT_HIGH_SPEED));
	seq_printf(seq, "silent %d\nsuspended %d\nplanned %u\nlate_ns_max %llu\n", silent,
		   suspended, planned, late);
}

static void show_address(struct seq_file *seq, unsigned int address)
{
	static const char *const types[] = { "control", "iso", "bulk", "interrupt" };
	const char *name = wire_address_name(address);
	struct wire_count count;

	spin_lock_irq(&wire.lock);
	count = wire.count[address];
	spin_unlock_irq(&wire.lock);
	if (!count.packets && !count.errors)
		return;
	seq_printf(seq, "%s.%s 1\n", name, types[count.type]);
	seq_printf(seq, "%s.packets %llu\n%s.bytes %llu\n", name, count.packets, name, count.bytes);
	seq_printf(seq, "%s.lost %llu\n%s.empty %llu\n", name, count.lost, name, count.empty);
	seq_printf(seq, "%s.errors %llu\n%s.faults %llu\n", name, count.errors, name, count.faults);
	seq_printf(seq, "%s.late %llu\n%s.restarts %llu\n", name, count.late, name, count.restarts);
	seq_printf(seq, "%s.last %llu\n%s.last_ns %llu\n", name, count.last, name, count.last_ns);
}

static int counters_show(struct seq_file *seq, void *unused)
{
	unsigned int address;

	show_wire(seq);
	for (address = 0; address < ADDRESSES; address++)
		show_address(seq, address);
	return 0;
}

int wire_counters_init(void)
{
	return proc_create_single(COUNTERS_NAME, 0444, NULL, counters_show) ? 0 : -ENOMEM;
}

void wire_counters_exit(void)
{
	remove_proc_entry(COUNTERS_NAME, NULL);
}
