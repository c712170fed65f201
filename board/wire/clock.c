// SPDX-License-Identifier: GPL-2.0-only
/*
 * The host's clock. Microframe n begins, in nanoseconds of CLOCK_MONOTONIC, at
 *
 *	base_ns + floor((base_rest + (n - base) * 125000 * 10^9) / (10^9 + ppb))
 *
 * with base_rest in parts of the divisor: nothing is rounded that could add up. The base follows
 * the present at a distance, so that the products stay small, and an action that comes late by less
 * than that distance can still take place in its own microframe.
 */
#include <linux/ktime.h>
#include <linux/bits.h>
#include <linux/math64.h>
#include "usb_wire.h"

#define PARTS		1000000000ULL	/* per 10^9, the unit of the clock's offset */
#define BASE_BEHIND	8000		/* microframes from the base to the present, at least */
#define BASE_FAR	65536		/* and at most; then it moves */
#define MOVE_MAX	BIT_ULL(32)	/* at once, so that the product fits in 64 bits */

static void set_rate(int ppb)
{
	struct wire_clock *clock = &wire.clock;

	clock->since = clock->base;
	clock->since_ns = clock->base_ns;
	clock->ppb = ppb;
	clock->divisor = PARTS + ppb;
	clock->step = div64_u64_rem(UFRAME_NS * PARTS, clock->divisor, &clock->step_rest);
}

/* The microframe is at or after the base, by MOVE_MAX at most. */
static void move_base(u64 uframe)
{
	struct wire_clock *clock = &wire.clock;
	u64 count = uframe - clock->base;
	u64 rest = clock->base_rest + count * clock->step_rest;

	clock->base_ns += count * clock->step;
	clock->base_ns += div64_u64_rem(rest, clock->divisor, &clock->base_rest);
	clock->base = uframe;
}

/* Starts the host's clock: microframe 0 begins now. */
void wire_clock_init(void)
{
	wire.clock.base_ns = ktime_get_ns();
	set_rate(0);
}

/**
 * wire_clock_rate() - change the clock's offset
 * @ppb: how much faster than CLOCK_MONOTONIC it runs, parts per 10^9
 * @uframe: the microframe from whose beginning on
 *
 * The beginning of that microframe is rounded down to whole nanoseconds.
 */
void wire_clock_rate(int ppb, u64 uframe)
{
	move_base(max(uframe, wire.clock.base));
	wire.clock.base_rest = 0;
	set_rate(ppb);
}

/**
 * wire_uframe_ns() - when a microframe begins
 * @uframe: one that is not before the base
 */
u64 wire_uframe_ns(u64 uframe)
{
	const struct wire_clock *clock = &wire.clock;
	u64 count = uframe - clock->base;

	return clock->base_ns + count * clock->step +
	       div64_u64(clock->base_rest + count * clock->step_rest, clock->divisor);
}

/* The present microframe. */
u64 wire_uframe(void)
{
	struct wire_clock *clock = &wire.clock;
	u64 now = max(ktime_get_ns(), clock->base_ns);
	u64 count;

	/* A step is up to a nanosecond longer than clock->step: the count is never too large. */
	for (;;) {
		count = div64_u64(now - clock->base_ns, clock->step + 1);
		if (count <= BASE_FAR)
			break;
		move_base(clock->base + min(count - BASE_BEHIND, MOVE_MAX));
	}
	while (wire_uframe_ns(clock->base + count + 1) <= now)
		count++;
	return clock->base + count;
}
