// SPDX-License-Identifier: GPL-2.0-only
/*
 * The device controller as the gadget framework sees it.
 */
#include <linux/completion.h>
#include <linux/rcupdate.h>
#include "usb_wire.h"

static DECLARE_COMPLETION(released);

static int udc_get_frame(struct usb_gadget *gadget)
{
	return wire_frame_number(wire.hcd);
}

/*
 * Works when the host has suspended the port and allowed it; a host that is silent by command hears
 * nothing.
 */
static int udc_wakeup(struct usb_gadget *gadget)
{
	unsigned long flags;
	int err = -EINVAL;

	spin_lock_irqsave(&wire.lock, flags);
	if (wire.remote_wakeup && wire.suspended && wire.port & USB_PORT_STAT_SUSPEND) {
		wire.port &= ~USB_PORT_STAT_SUSPEND;
		wire.port |= PORT_CHANGE(SUSPEND);
		wire.news = true;
		wire_log(wire_uframe(), "wakeup");
		wire_link_idle(wire_uframe());
		err = 0;
	}
	spin_unlock_irqrestore(&wire.lock, flags);
	wire_tell_hub();
	return err;
}

static int udc_set_selfpowered(struct usb_gadget *gadget, int value)
{
	gadget->is_selfpowered = !!value;
	return 0;
}

/* The framework tells the gadget driver of a disconnect that it wants itself. */
static int udc_pullup(struct usb_gadget *gadget, int on)
{
	spin_lock_irq(&wire.lock);
	wire.pullup = on;
	wire_link_update(wire_uframe(), false);
	spin_unlock_irq(&wire.lock);
	wire_tell_hub();
	return 0;
}

static int udc_start(struct usb_gadget *gadget, struct usb_gadget_driver *driver)
{
	spin_lock_irq(&wire.lock);
	wire.driver = driver;
	spin_unlock_irq(&wire.lock);
	return 0;
}

/*
 * Leaves wire.callbacks: the framework stops and starts a controller without asking for them again.
 */
static int udc_stop(struct usb_gadget *gadget)
{
	spin_lock_irq(&wire.lock);
	wire_flush_endpoints();
	wire.driver = NULL;
	wire_link_update(wire_uframe(), false);
	spin_unlock_irq(&wire.lock);
	wire_tell_hub();
	return 0;
}

/* The port decides. */
static void udc_set_speed(struct usb_gadget *gadget, enum usb_device_speed speed)
{
}

static void udc_async_callbacks(struct usb_gadget *gadget, bool enable)
{
	spin_lock_irq(&wire.lock);
	wire.callbacks = enable;
	spin_unlock_irq(&wire.lock);
	/* A callback runs with interrupts off, which RCU waits for as for a reader. */
	if (!enable)
		synchronize_rcu();
}

static const struct usb_gadget_ops udc_ops = {
	.get_frame = udc_get_frame,
	.wakeup = udc_wakeup,
	.set_selfpowered = udc_set_selfpowered,
	.pullup = udc_pullup,
	.udc_start = udc_start,
	.udc_stop = udc_stop,
	.udc_set_speed = udc_set_speed,
	.udc_async_callbacks = udc_async_callbacks,
};

static void udc_release(struct device *device)
{
	complete(&released);
}

/**
 * wire_udc_add() - register the device controller
 * @parent: its device, whose name is the controller's
 */
int wire_udc_add(struct device *parent)
{
	struct usb_gadget *gadget = &wire.gadget;
	int number, err;

	usb_initialize_gadget(parent, gadget, udc_release);
	gadget->name = KBUILD_MODNAME;
	gadget->ops = &udc_ops;
	gadget->max_speed = USB_SPEED_HIGH;
	gadget->speed = USB_SPEED_UNKNOWN;
	gadget->ep0 = &EP0->ep;
	INIT_LIST_HEAD(&gadget->ep_list);
	for (number = 0; number < ENDPOINTS; number++) {
		wire_ep_init(&wire.in[number], number, true);
		wire_ep_init(&wire.out[number], number, false);
	}
	err = usb_add_gadget(gadget);
	if (err) {
		usb_put_gadget(gadget);
		wait_for_completion(&released);
	}
	return err;
}

/* Unbinds the gadget driver and waits until nobody holds the device controller. */
void wire_udc_remove(void)
{
	usb_del_gadget(&wire.gadget);
	usb_put_gadget(&wire.gadget);
	wait_for_completion(&released);
}
