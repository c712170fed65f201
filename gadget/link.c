// SPDX-License-Identifier: GPL-2.0-only
/*
 * The android_usb state on kernels that have none, told in the order of those that have:
 * CONNECTED with the first setup packet, CONFIGURED with the configuration, DISCONNECTED with the loss of
 * the host and with each reset of the bus. All from a work item, which tells what is the case when it runs;
 * so hosts that reset twice while they enumerate are seen to connect twice.
 *
 * A function is not told of any of that. While it is bound, its gadget driver's callbacks lead through here.
 */
#include <linux/spinlock.h>
#include <linux/workqueue.h>
#include "usb.h"

static DEFINE_SPINLOCK(link_lock);	/* the two flags; innermost */
static bool connected, configured;
static bool told_connected;		/* the work's own */

/* Between bind and unbind, during which alone a callback runs. */
static struct usb_gadget_driver *driver;
static struct usb_gadget_driver original;

static void tell(struct work_struct *unused)
{
	bool is_connected, is_configured;

	spin_lock_irq(&link_lock);
	is_connected = connected;
	is_configured = configured;
	configured = false;	/* told once */
	spin_unlock_irq(&link_lock);
	if (is_connected && !told_connected)
		vexa_android0_tell("CONNECTED", false);
	if (is_configured)
		vexa_android0_tell("CONFIGURED", false);
	if (!is_connected && told_connected)
		vexa_android0_tell("DISCONNECTED", false);
	told_connected = is_connected;
}

static DECLARE_WORK(telling, tell);

static void note(bool is_connected, bool is_configured)
{
	unsigned long flags;

	spin_lock_irqsave(&link_lock, flags);
	connected = is_connected;
	configured = is_configured;
	spin_unlock_irqrestore(&link_lock, flags);
	schedule_work(&telling);
}

static int link_setup(struct usb_gadget *gadget, const struct usb_ctrlrequest *setup)
{
	int result;

	if (!READ_ONCE(connected))
		note(true, false);
	result = original.setup(gadget, setup);
	if (result >= 0 && !setup->bRequestType && setup->bRequest == USB_REQ_SET_CONFIGURATION &&
	    setup->wValue)
		note(true, true);
	return result;
}

static void link_disconnect(struct usb_gadget *gadget)
{
	note(false, false);
	original.disconnect(gadget);
}

static void link_reset(struct usb_gadget *gadget)
{
	note(false, false);
	original.reset(gadget);
}

void vexa_link_bind(struct usb_composite_dev *cdev)
{
	driver = &cdev->driver->gadget_driver;
	original = *driver;
	driver->setup = link_setup;
	driver->disconnect = link_disconnect;
	driver->reset = link_reset;
}

void vexa_link_unbind(void)
{
	driver->setup = original.setup;
	driver->disconnect = original.disconnect;
	driver->reset = original.reset;
	note(false, false);
}

int vexa_link_init(void)
{
	return vexa_android0_init();
}

void vexa_link_exit(void)
{
	cancel_work_sync(&telling);
	vexa_android0_exit();
}
