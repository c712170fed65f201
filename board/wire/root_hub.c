// SPDX-License-Identifier: GPL-2.0-only
/*
 * The root hub: one port, as usbcore's hub driver drives it.
 */
#include <linux/ktime.h>
#include <linux/string.h>
#include <linux/usb/ch11.h>
#include "usb_wire.h"

#define RESET_NS	(10 * NSEC_PER_MSEC)
#define DESC_LENGTH	9	/* of a hub with one port */
#define PORT_CHANGES	(PORT_CHANGE(CONNECTION) | PORT_CHANGE(ENABLE) | PORT_CHANGE(SUSPEND) | \
			 PORT_CHANGE(OVERCURRENT) | PORT_CHANGE(RESET))

/* Bit 0 is the hub's own, bit 1 the port's. */
int wire_hub_status(struct usb_hcd *hcd, char *buffer)
{
	if (!(READ_ONCE(wire.port) & PORT_CHANGES))
		return 0;
	*buffer = BIT(1);
	return 1;
}

static void describe(struct usb_hub_descriptor *descriptor)
{
	memset(descriptor, 0, DESC_LENGTH);
	descriptor->bDescLength = DESC_LENGTH;
	descriptor->bDescriptorType = USB_DT_HUB;
	descriptor->bNbrPorts = 1;
	descriptor->wHubCharacteristics =
		cpu_to_le16(HUB_CHAR_INDV_PORT_LPSM | HUB_CHAR_COMMON_OCPM);
	descriptor->u.hs.DeviceRemovable[1] = 0xff;	/* what was PortPwrCtrlMask, all ones */
}

/* The port is looked at often enough during a reset that nothing else has to end it. */
static void end_reset(void)
{
	if (!(wire.port & USB_PORT_STAT_RESET) || ktime_get_ns() - wire.reset_ns < RESET_NS)
		return;
	wire.port &= ~USB_PORT_STAT_RESET;
	wire.port |= PORT_CHANGE(RESET);
	if (!(wire.port & USB_PORT_STAT_CONNECTION))
		return;
	wire.port |= USB_PORT_STAT_ENABLE | (wire.full_speed ? 0 : USB_PORT_STAT_HIGH_SPEED);
	wire.gadget.speed = wire.full_speed ? USB_SPEED_FULL : USB_SPEED_HIGH;
	wire_log(wire_uframe(), "enable %s", wire.full_speed ? "full" : "high");
	wire_link_idle(wire_uframe());
}

static int set_feature(u16 feature)
{
	switch (feature) {
	case USB_PORT_FEAT_POWER:
		wire.port |= USB_PORT_STAT_POWER;
		wire_link_update(wire_uframe(), true);
		return 0;
	case USB_PORT_FEAT_RESET:
		if (!(wire.port & USB_PORT_STAT_CONNECTION))
			return 0;
		wire.port |= USB_PORT_STAT_RESET;
		wire.reset_ns = ktime_get_ns();
		wire_link_reset(wire_uframe());
		return 0;
	case USB_PORT_FEAT_SUSPEND:
		if (wire.port & USB_PORT_STAT_ENABLE)
			wire.port |= USB_PORT_STAT_SUSPEND;
		wire_link_idle(wire_uframe());
		return 0;
	}
	return -EPIPE;
}

static int clear_feature(u16 feature)
{
	switch (feature) {
	case USB_PORT_FEAT_SUSPEND:
		if (!(wire.port & USB_PORT_STAT_SUSPEND))
			return 0;
		wire.port &= ~USB_PORT_STAT_SUSPEND;
		wire.port |= PORT_CHANGE(SUSPEND);
		wire.news = true;
		wire_link_idle(wire_uframe());
		return 0;
	case USB_PORT_FEAT_POWER:
		wire.port &= ~USB_PORT_STAT_POWER;
		wire_link_update(wire_uframe(), true);
		return 0;
	case USB_PORT_FEAT_ENABLE:
	case USB_PORT_FEAT_C_CONNECTION:
	case USB_PORT_FEAT_C_ENABLE:
	case USB_PORT_FEAT_C_SUSPEND:
	case USB_PORT_FEAT_C_OVER_CURRENT:
	case USB_PORT_FEAT_C_RESET:
		wire.port &= ~BIT(feature);
		return 0;
	}
	return -EPIPE;
}

static int control_locked(u16 request, u16 value, char *buffer)
{
	switch (request) {
	case ClearHubFeature:
	case SetHubFeature:
		return 0;
	case GetHubDescriptor:
		describe((struct usb_hub_descriptor *)buffer);
		return 0;
	case GetHubStatus:
		memset(buffer, 0, 4);
		return 0;
	case GetPortStatus:
		end_reset();
		((__le16 *)buffer)[0] = cpu_to_le16(wire.port);
		((__le16 *)buffer)[1] = cpu_to_le16(wire.port >> 16);
		return 0;
	case SetPortFeature:
		return set_feature(value);
	case ClearPortFeature:
		return clear_feature(value);
	}
	return -EPIPE;
}

int wire_hub_control(struct usb_hcd *hcd, u16 request, u16 value, u16 index, char *buffer,
		     u16 length)
{
	int err;

	spin_lock_irq(&wire.lock);
	err = control_locked(request, value, buffer);
	spin_unlock_irq(&wire.lock);
	wire_tell_hub();
	return err;
}

int wire_bus_suspend(struct usb_hcd *hcd)
{
	spin_lock_irq(&wire.lock);
	wire.hub_suspended = true;
	hcd->state = HC_STATE_SUSPENDED;
	spin_unlock_irq(&wire.lock);
	return 0;
}

int wire_bus_resume(struct usb_hcd *hcd)
{
	spin_lock_irq(&wire.lock);
	wire.hub_suspended = false;
	hcd->state = HC_STATE_RUNNING;
	spin_unlock_irq(&wire.lock);
	return 0;
}
