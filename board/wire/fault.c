// SPDX-License-Identifier: GPL-2.0-only
/*
 * Faults that wait for their packet, and the actions that commands ask for.
 */
#include <linux/string.h>
#include "usb_wire.h"

static const char *const names[ADDRESSES + 1] = {
	"ep0", "", "ep1out", "ep1in", "ep2out", "ep2in", "ep3out", "ep3in", "ep4out", "ep4in",
	"ep5out", "ep5in", "ep6out", "ep6in", "ep7out", "ep7in", [ALL_ADDRESSES] = "all",
};

static const char *const fault_names[FAULTS] = { "none", "lost", "crc", "babble" };

const char *wire_address_name(unsigned int address)
{
	return names[address];
}

/* The address with a name, "all" among them, or -EINVAL. */
int wire_address_parse(const char *name)
{
	return *name ? match_string(names, ARRAY_SIZE(names), name) : -EINVAL;
}

/* The fault with a name, or -EINVAL. */
int wire_fault_parse(const char *name)
{
	return match_string(fault_names, FAULTS, name);
}

/*
 * What is to be wrong with the packet that an address has in a microframe
 *
 * Counts and logs it.
 */
enum wire_fault wire_fault_take(unsigned int address, u64 uframe)
{
	enum wire_fault kind = wire.fault[address].kind;

	if (!kind)
		return FAULT_NONE;
	wire.count[address].faults++;
	wire_log(uframe, "fault %s %s", names[address], fault_names[kind]);
	if (wire.fault[address].times && !--wire.fault[address].times)
		wire.fault[address].kind = FAULT_NONE;
	return kind;
}

static void poll_again(const struct wire_action *action, u64 uframe)
{
	if (action->address != ALL_ADDRESSES)
		wire.unpolled &= ~BIT(action->address);
	else
		wire.unpolled = 0;
	wire_kick(action->address, uframe);
}

static void stop_polling(const struct wire_action *action)
{
	wire.unpolled |= action->address == ALL_ADDRESSES ? ~0UL : BIT(action->address);
}

static void go_silent(bool silent, u64 uframe)
{
	if (wire.silent == silent)
		return;
	wire.silent = silent;
	wire_log(uframe, silent ? "silent" : "heard");
	wire_link_idle(uframe);
	if (!silent)
		wire_kick(ALL_ADDRESSES, uframe);
}

/**
 * wire_act() - do what a command asks for; under the lock, which it drops
 * @action: what
 * @uframe: the microframe in which it happens
 */
void wire_act(const struct wire_action *action, u64 uframe)
{
	switch (action->kind) {
	case DO_PLUG:
	case DO_UNPLUG:
		wire.plugged = action->kind == DO_PLUG;
		wire_link_update(uframe, true);
		break;
	case DO_SPEED:
		wire.full_speed = action->value;
		break;
	case DO_PPB:
		wire_clock_rate(action->value, uframe);
		wire_arm();
		break;
	case DO_RESET:
		wire_link_disturb(uframe);
		break;
	case DO_SUSPEND:
	case DO_RESUME:
		go_silent(action->kind == DO_SUSPEND, uframe);
		break;
	case DO_POLL:
		if (action->value)
			poll_again(action, uframe);
		else
			stop_polling(action);
		break;
	case DO_FAULT:
		wire.fault[action->address].kind = action->value;
		wire.fault[action->address].times = action->times;
		break;
	}
}
