// SPDX-License-Identifier: GPL-2.0-only
/*
 * What happens when. One timer, armed for the next microframe in which something is due: an idle
 * wire costs nothing, a stream with a packet each millisecond an interrupt each millisecond.
 * Whatever the timer finds due it does in the order of the microframes, so that a late timer
 * changes nothing but the time of day.
 *
 * All of it runs in the hard interrupt, as a real controller's handler does.
 */
#include <linux/ktime.h>
#include <linux/math.h>
#include "usb_wire.h"

/*
 * The first thing that is due: a planned action, the device's notice of a suspend or a pipe's
 * packet.
 */
struct due {
	u64 uframe;
	bool plan, suspend;
	struct wire_pipe *pipe;
};

/* The URB that a pipe is working at, or NULL. */
struct urb *wire_first_urb(const struct wire_pipe *pipe)
{
	return list_first_entry_or_null(&pipe->hep->urb_list, struct urb, urb_list);
}

/* Microframes from a packet of a pipe to the next. */
u64 wire_interval(const struct urb *urb)
{
	if (!usb_pipeisoc(urb->pipe) && !usb_pipeint(urb->pipe))
		return 1;
	return (u64)max(urb->interval, 1) * (urb->dev->speed == USB_SPEED_HIGH ? 1 : 8);
}

/* The first microframe, from one on, in which a pipe may have a packet. */
u64 wire_slot(u64 uframe, const struct urb *urb)
{
	return roundup(uframe, wire_interval(urb));
}

/* A pipe whose endpoint has nothing to say would only hear NAK; wire_kick wakes it. */
static bool gadget_is_silent(const struct wire_pipe *pipe, const struct urb *urb)
{
	const struct wire_ep *ep;

	if (usb_pipeisoc(urb->pipe) || !wire_link_up())
		return false;
	if (usb_pipecontrol(urb->pipe))
		return pipe->asked && list_empty(&EP0->requests);
	ep = wire_ep_at(pipe->address);
	return ep && !ep->halted && list_empty(&ep->requests);
}

static u64 pipe_due(const struct wire_pipe *pipe)
{
	const struct urb *urb = wire_first_urb(pipe);

	if (!urb || wire.silent || wire.unpolled & BIT(pipe->address))
		return NEVER;
	return gadget_is_silent(pipe, urb) ? NEVER : pipe->next;
}

/* In the same microframe actions come first. */
static struct due next_due(void)
{
	struct due due = { .uframe = NEVER };
	struct wire_pipe *pipe;

	if (wire.planned_count) {
		due.uframe = wire.planned[0].at;
		due.plan = true;
	}
	if (wire_link_suspend_due() < due.uframe)
		due = (struct due) { .uframe = wire_link_suspend_due(), .suspend = true };
	list_for_each_entry(pipe, &wire.pipes, link) {
		u64 uframe = pipe_due(pipe);

		if (uframe < due.uframe)
			due = (struct due) { .uframe = uframe, .pipe = pipe };
	}
	return due;
}

/* Sets the timer to what is due next; under the lock. */
void wire_arm(void)
{
	struct due due;

	if (wire.ticking)
		return;
	due = next_due();
	if (wire.unlinked)
		hrtimer_start(&wire.timer, 0, HRTIMER_MODE_ABS_HARD);
	else if (due.uframe != NEVER)
		hrtimer_start(&wire.timer,
			      ns_to_ktime(wire_uframe_ns(max(due.uframe, wire.clock.base))),
			      HRTIMER_MODE_ABS_HARD);
}

/**
 * wire_kick() - go on with pipes that have been standing still; under the lock
 * @address: of an endpoint, or ALL_ADDRESSES
 * @uframe: the first microframe in which they may have a packet
 */
void wire_kick(unsigned int address, u64 uframe)
{
	struct wire_pipe *pipe;

	list_for_each_entry(pipe, &wire.pipes, link) {
		struct urb *urb = wire_first_urb(pipe);

		if (address != ALL_ADDRESSES && address != pipe->address)
			continue;
		if (urb && pipe->next < uframe)
			pipe->next = wire_slot(uframe, urb);
	}
	wire_arm();
}

/*
 * Has an action done at its microframe; under the lock. Returns 0, or -ENOSPC when too many are
 * planned already.
 */
int wire_plan(const struct wire_action *action)
{
	unsigned int i = wire.planned_count;

	if (i == PLANNED_MAX)
		return -ENOSPC;
	for (; i && wire.planned[i - 1].at > action->at; i--)
		wire.planned[i] = wire.planned[i - 1];
	wire.planned[i] = *action;
	wire.planned_count++;
	wire_arm();
	return 0;
}

static void do_planned(void)
{
	const struct wire_action action = wire.planned[0];

	wire.planned_count--;
	memmove(wire.planned, wire.planned + 1, wire.planned_count * sizeof(*wire.planned));
	wire_act(&action, action.at);
}

static struct urb *find_unlinked(void)
{
	struct wire_pipe *pipe;
	struct urb *urb;

	list_for_each_entry(pipe, &wire.pipes, link)
		list_for_each_entry(urb, &pipe->hep->urb_list, urb_list)
			if (urb->unlinked)
				return urb;
	return NULL;
}

static void give_unlinked(void)
{
	struct urb *urb;

	while (wire.unlinked) {
		urb = find_unlinked();
		if (urb)
			wire_give_urb(urb, 0);
		else
			wire.unlinked = false;
	}
}

static void serve(struct wire_pipe *pipe, u64 uframe)
{
	struct urb *urb = wire_first_urb(pipe);

	if (usb_pipeisoc(urb->pipe))
		wire_serve_iso(pipe, urb, uframe);
	else if (usb_pipecontrol(urb->pipe))
		wire_serve_control(pipe, urb, uframe);
	else
		wire_serve_data(pipe, urb, uframe);
}

static enum hrtimer_restart tick(struct hrtimer *timer)
{
	unsigned long flags;
	struct due due;

	spin_lock_irqsave(&wire.lock, flags);
	wire.ticking = true;
	for (;;) {
		give_unlinked();
		due = next_due();
		if (due.uframe > wire_uframe())
			break;
		if (due.plan)
			do_planned();
		else if (due.suspend)
			wire_link_suspend();
		else
			serve(due.pipe, due.uframe);
	}
	wire.ticking = false;
	wire_arm();
	spin_unlock_irqrestore(&wire.lock, flags);
	wire_tell_hub();
	return HRTIMER_NORESTART;	/* wire_arm has set it */
}

void wire_schedule_init(void)
{
	hrtimer_init(&wire.timer, CLOCK_MONOTONIC, HRTIMER_MODE_ABS_HARD);
	wire.timer.function = tick;
}
