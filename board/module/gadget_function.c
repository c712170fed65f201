// SPDX-License-Identifier: GPL-2.0-only
/*
 * What the host, the cable and the controller do to the gadget function.
 */
#include <linux/seq_file.h>
#include "usb_board.h"

DEFINE_MUTEX(gadget_mutex);
int gadget_index;

/* The card first: whoever reads the record finds it. */
int gadget_bind(int index)
{
	struct vexa_state state;
	int err;

	vexa_get_state(&state);
	err = state.bound && vexa_card_number() >= 0 ? 0 : gadget_card_add(index);
	return err ? err : vexa_set_bound(true);
}

void gadget_unbind(void)
{
	host_stream_switch(VEXA_SPEAKER, false);
	host_stream_switch(VEXA_MIC, false);
	vexa_set_bound(false);
	gadget_card_remove();
}

void gadget_stream(enum vexa_dir dir, bool on)
{
	host_stream_switch(dir, on);
	vexa_set_active(dir, on);
}

static void host_appears(void)
{
	android_usb_state("CONNECTED", false);
	android_usb_state("CONFIGURED", false);
}

void gadget_plug(void)
{
	cable_set(true);
	host_appears();
}

void gadget_unplug(void)
{
	enum vexa_dir dir;

	cable_set(false);
	android_usb_state("DISCONNECTED", false);
	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++)
		if (host_stream(dir)->on)
			gadget_stream(dir, false);
}

/* The controller restarts; whether the host then finds it is up to the cable and to the fault. */
int gadget_reenumerate(void)
{
	int err;

	android_usb_state("DISCONNECTED", false);
	gadget_unbind();
	err = gadget_bind(gadget_index);
	if (!err && cable_plugged() && !fault_take(FAULT_ENUMERATE, &(int){ 0 }))
		host_appears();
	return err;
}

void gadget_function_show(struct seq_file *seq)
{
	struct vexa_state state;
	enum vexa_dir dir;

	vexa_get_state(&state);
	seq_printf(seq, "bound %d\ncard %d\n", state.bound, vexa_card_number());
	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++)
		seq_printf(seq, "%s.volume %d\n%s.mute %d\n", usb_dir_names[dir],
			   state.volumes[dir], usb_dir_names[dir], state.mutes[dir]);
}

int gadget_function_init(bool start_bound, bool start_plugged)
{
	int err = 0;

	mutex_lock(&gadget_mutex);
	if (start_plugged) {
		cable_set(true);
		err = android_usb_state("CONFIGURED", true);
	}
	if (!err && start_bound)
		err = gadget_bind(gadget_index);
	mutex_unlock(&gadget_mutex);
	return err;
}
