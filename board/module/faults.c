// SPDX-License-Identifier: GPL-2.0-only
/*
 * Faults on demand: each point passes a number of calls, then spoils a number of calls.
 */
#include <linux/kernel.h>
#include <linux/seq_file.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include "usb_board.h"

struct fault {
	bool armed;
	bool forever;
	int value;
	unsigned int after;	/* calls still to pass */
	unsigned int times;	/* calls still to spoil */
	unsigned int armings;
	u64 fired;
};

static struct fault faults[FAULT_POINTS];
static DEFINE_SPINLOCK(fault_lock);

/* The names of the points; those of a PCM have its direction and a dot before them. */
static const char *const pcm_points[] = {
	"open", "hw_params", "prepare", "start", "resume", "transfer", "ack",
	"other_rate", "unplug", "config", "access", "format", "channels", "rate", "buffer", "period",
};
static const char *const other_points[] = {
	"read", "read_short", "init_sync", "set_volume", "set_mute", "enumerate",
};
static_assert(ARRAY_SIZE(pcm_points) * VEXA_DIRS == FAULT_READ);
static_assert(ARRAY_SIZE(other_points) == FAULT_POINTS - FAULT_READ);

static void point_name(enum fault_point point, char *name, size_t size)
{
	if (point >= FAULT_READ)
		strscpy(name, other_points[point - FAULT_READ], size);
	else
		scnprintf(name, size, "%s.%s", pcm_dir_names[point % VEXA_DIRS],
			  pcm_points[point / VEXA_DIRS]);
}

static int find_point(const char *wanted)
{
	char name[32];
	int point;

	for (point = 0; point < FAULT_POINTS; point++) {
		point_name(point, name, sizeof(name));
		if (!strcmp(wanted, name))
			return point;
	}
	return -EINVAL;
}

bool fault_take(enum fault_point point, int *value)
{
	struct fault *fault = &faults[point];
	unsigned long flags;
	bool fires = false;

	spin_lock_irqsave(&fault_lock, flags);
	if (fault->armed && fault->after) {
		fault->after--;
	} else if (fault->armed) {
		fires = true;
		*value = fault->value;
		fault->fired++;
		if (!fault->forever && !--fault->times)
			fault->armed = false;
	}
	spin_unlock_irqrestore(&fault_lock, flags);
	return fires;
}

int fault_result(enum fault_point point)
{
	int value;

	return fault_take(point, &value) ? -value : 0;
}

unsigned int fault_armings(enum fault_point point)
{
	return READ_ONCE(faults[point].armings);
}

static void arm(enum fault_point point, int value, unsigned int after, unsigned int times)
{
	struct fault *fault = &faults[point];

	spin_lock_irq(&fault_lock);
	fault->armed = true;
	fault->value = value;
	fault->after = after;
	fault->times = times;
	fault->forever = !times;
	WRITE_ONCE(fault->armings, fault->armings + 1);
	spin_unlock_irq(&fault_lock);
	if (point == FAULT_READ)
		uac_wake_readers();
}

static int clear(int argc, char **argv)
{
	int point = argc > 2 ? find_point(argv[2]) : 0;
	int last = argc > 2 ? point : FAULT_POINTS - 1;

	if (point < 0 || argc > 3)
		return -EINVAL;
	spin_lock_irq(&fault_lock);
	for (; point <= last; point++)
		faults[point].armed = false;
	spin_unlock_irq(&fault_lock);
	return 0;
}

int fault_command(int argc, char **argv)
{
	unsigned int after = 0, times = 1;
	int point, value, i;

	if (argc >= 2 && !strcmp(argv[1], "clear"))
		return clear(argc, argv);
	if (argc < 3 || kstrtoint(argv[2], 0, &value) || value < 0)
		return -EINVAL;
	point = find_point(argv[1]);
	if (point < 0)
		return point;
	for (i = 3; i < argc; i++) {
		if (strstarts(argv[i], "after=") && !kstrtouint(argv[i] + 6, 0, &after))
			continue;
		if (strstarts(argv[i], "times=") && !kstrtouint(argv[i] + 6, 0, &times))
			continue;
		return -EINVAL;
	}
	arm(point, value, after, times);
	return 0;
}

void fault_show(struct seq_file *seq)
{
	char name[32];
	int point;

	for (point = 0; point < FAULT_POINTS; point++) {
		if (!READ_ONCE(faults[point].fired))
			continue;
		point_name(point, name, sizeof(name));
		seq_printf(seq, "fault.%s %llu\n", name, faults[point].fired);
	}
}
