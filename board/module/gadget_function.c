// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget function as the host sees it: bound or not, volumes, mutes, and what plugging does.
 */
#include <linux/seq_file.h>
#include "usb_board.h"

DEFINE_MUTEX(gadget_mutex);
int gadget_index;

static bool bound;
static s16 volumes[USB_DIRS];
static bool mutes[USB_DIRS];

void gadget_init_sync(void)
{
	enum usb_dir dir;

	uac_drop_records();
	if (!bound) {
		uac_record(UAC_UNBIND, 0, 1);
		return;
	}
	uac_record(UAC_BIND, 0, 1);
	for (dir = SPEAKER; dir < USB_DIRS; dir++)
		uac_record(UAC_VOLUME + dir, (u16)READ_ONCE(volumes[dir]), 1);
	for (dir = SPEAKER; dir < USB_DIRS; dir++)
		uac_record(UAC_MUTE + dir, READ_ONCE(mutes[dir]), 1);
	for (dir = SPEAKER; dir < USB_DIRS; dir++)
		if (host_stream(dir)->on)
			uac_record(UAC_ACTIVE + dir, 1, 1);
}

void gadget_store_volume(enum usb_dir dir, s16 volume)
{
	WRITE_ONCE(volumes[dir], volume);
}

void gadget_store_mute(enum usb_dir dir, bool mute)
{
	WRITE_ONCE(mutes[dir], mute);
}

/* The card first: whoever reads the record finds it. */
int gadget_bind(int index)
{
	int err = bound && gadget_card_number() >= 0 ? 0 : gadget_card_add(index);

	if (err)
		return err;
	bound = true;
	return uac_record(UAC_BIND, 0, 1);
}

void gadget_unbind(void)
{
	host_stream_switch(SPEAKER, false);
	host_stream_switch(MIC, false);
	bound = false;
	uac_record(UAC_UNBIND, 0, 1);
	gadget_card_remove();
}

void gadget_stream(enum usb_dir dir, bool on)
{
	host_stream_switch(dir, on);
	uac_record(UAC_ACTIVE + dir, on, 1);
}

static void host_appears(void)
{
	android_usb_state("CONNECTED", false);
	android_usb_state("CONFIGURED", false);
}

void gadget_plug(void)
{
	android_usb_cable(true);
	host_appears();
}

void gadget_unplug(void)
{
	enum usb_dir dir;

	android_usb_cable(false);
	android_usb_state("DISCONNECTED", false);
	for (dir = SPEAKER; dir < USB_DIRS; dir++)
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
	if (!err && android_usb_plugged() && !fault_take(FAULT_ENUMERATE, &(int){ 0 }))
		host_appears();
	return err;
}

void gadget_function_show(struct seq_file *seq)
{
	enum usb_dir dir;

	seq_printf(seq, "bound %d\ncard %d\n", bound, gadget_card_number());
	for (dir = SPEAKER; dir < USB_DIRS; dir++)
		seq_printf(seq, "%s.volume %d\n%s.mute %d\n", usb_dir_names[dir],
			   READ_ONCE(volumes[dir]), usb_dir_names[dir], READ_ONCE(mutes[dir]));
}

int gadget_function_init(bool start_bound, bool start_plugged)
{
	int err = 0;

	mutex_lock(&gadget_mutex);
	if (start_plugged) {
		android_usb_cable(true);
		err = android_usb_state("CONFIGURED", true);
	}
	if (!err && start_bound)
		err = gadget_card_add(gadget_index);
	bound = !err && start_bound;
	mutex_unlock(&gadget_mutex);
	return err;
}
