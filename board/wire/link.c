// SPDX-License-Identifier: GPL-2.0-only
/*
 * The link between the root port and the device controller: connection, reset, suspend; and what
 * the gadget driver is told of it, in the order in which controllers do: endpoints lose their
 * requests first.
 */
#include <linux/ktime.h>
#include "usb_wire.h"

#define SUSPEND_UFRAMES	24	/* a device takes an idle bus of 3 ms for a suspend */
#define CONNECTED	USB_PORT_STAT_CONNECTION
#define ENABLED		USB_PORT_STAT_ENABLE
#define SUSPENDED	USB_PORT_STAT_SUSPEND
#define PORT_STATES	(CONNECTED | ENABLED | SUSPENDED | USB_PORT_STAT_RESET | \
			 USB_PORT_STAT_HIGH_SPEED)

/* Whether packets reach the gadget driver. */
bool wire_link_up(void)
{
	u32 state = wire.port & (CONNECTED | ENABLED | SUSPENDED);

	return state == (CONNECTED | ENABLED) && wire.driver && wire.callbacks;
}

/* Ends every request of the gadget's; drops the lock. */
void wire_flush_endpoints(void)
{
	struct wire_request *request;
	struct wire_ep *ep;
	int i;

	for (i = 0; i < 2 * ENDPOINTS; i++) {
		ep = i < ENDPOINTS ? &wire.in[i] : &wire.out[i - ENDPOINTS];
		while ((request = wire_first_request(ep)))
			wire_give_request(ep, request, -ESHUTDOWN);
	}
}

/*
 * Drops the lock. The driver stays for the call: udc_async_callbacks waits until interrupts are on.
 */
static void tell_driver(void (*callback)(struct usb_gadget *gadget))
{
	if (!callback)
		return;
	spin_unlock(&wire.lock);
	callback(&wire.gadget);
	spin_lock(&wire.lock);
}

static bool has_driver(void)
{
	return wire.driver && wire.callbacks;
}

static void forget_session(void)
{
	wire.gadget.speed = USB_SPEED_UNKNOWN;
	wire.remote_wakeup = false;
	wire.suspended = false;
	wire.idle_since = NEVER;
}

static void detach(u64 uframe, bool tell)
{
	wire.port &= ~PORT_STATES;
	wire_log(uframe, "detach");
	wire_flush_endpoints();
	forget_session();
	if (tell && has_driver())
		tell_driver(wire.driver->disconnect);
	usb_gadget_set_state(&wire.gadget, USB_STATE_NOTATTACHED);
	wire_kick(ALL_ADDRESSES, uframe);	/* what the host waits for fails now */
}

/**
 * wire_link_update() - connect or disconnect as port, cable and gadget have it
 * @uframe: the microframe in which it happens
 * @tell: tell the gadget driver of a disconnect; not when the gadget itself wants it
 *
 * Under the lock, which it drops.
 */
void wire_link_update(u64 uframe, bool tell)
{
	bool on = wire.port & USB_PORT_STAT_POWER && wire.plugged && wire.pullup && wire.driver;

	if (on == !!(wire.port & CONNECTED))
		return;
	wire.port |= PORT_CHANGE(CONNECTION);
	wire.news = true;
	if (on) {
		wire.port |= CONNECTED;
		wire_log(uframe, "attach");
	} else {
		detach(uframe, tell);
	}
}

/**
 * wire_link_reset() - a bus reset begins
 * @uframe: the microframe in which it does
 *
 * Under the lock, which it drops.
 */
void wire_link_reset(u64 uframe)
{
	struct usb_gadget_driver *driver;

	wire.port &= ~(ENABLED | SUSPENDED | USB_PORT_STAT_HIGH_SPEED);
	wire_log(uframe, "reset");
	wire_flush_endpoints();
	forget_session();
	if (has_driver()) {
		driver = wire.driver;
		spin_unlock(&wire.lock);
		usb_gadget_udc_reset(&wire.gadget, driver);
		spin_lock(&wire.lock);
	}
	wire_kick(ALL_ADDRESSES, uframe);
}

/**
 * wire_link_disturb() - a disturbance that the device takes for a reset
 * @uframe: the microframe in which it happens
 *
 * The hub shuts the port for it, the host finds it so and enumerates the device again. Under the
 * lock, which it drops.
 */
void wire_link_disturb(u64 uframe)
{
	if (!(wire.port & ENABLED))
		return;
	wire.port |= PORT_CHANGE(ENABLE);
	wire.news = true;
	wire_link_reset(uframe);
}

/**
 * wire_link_idle() - look whether the bus has become idle or has ceased to be
 * @uframe: the present microframe
 *
 * Under the lock, which it drops.
 */
void wire_link_idle(u64 uframe)
{
	bool idle = wire.port & ENABLED && (wire.silent || wire.port & SUSPENDED);
	bool was_idle = wire.idle_since != NEVER;

	if (idle == was_idle)
		return;
	if (idle) {
		wire.idle_since = uframe;
		wire_arm();
		return;
	}
	wire.idle_since = NEVER;
	if (!wire.suspended)
		return;
	wire.suspended = false;
	wire_log(uframe, "resume");
	usb_gadget_set_state(&wire.gadget, wire.state);
	if (has_driver())
		tell_driver(wire.driver->resume);
}

/* The microframe in which the device takes the idle bus for a suspend, or NEVER. */
u64 wire_link_suspend_due(void)
{
	if (wire.idle_since == NEVER || wire.suspended)
		return NEVER;
	return wire.idle_since + SUSPEND_UFRAMES;
}

/* The device takes the idle bus for a suspend; under the lock, which it drops. */
void wire_link_suspend(void)
{
	wire_log(wire_link_suspend_due(), "suspend");
	wire.suspended = true;
	wire.state = wire.gadget.state;
	usb_gadget_set_state(&wire.gadget, USB_STATE_SUSPENDED);
	if (has_driver())
		tell_driver(wire.driver->suspend);
}

/* Has usbcore look at the root port when there is news; not under the lock. */
void wire_tell_hub(void)
{
	unsigned long flags;
	bool news, resume;

	if (!READ_ONCE(wire.news))
		return;
	spin_lock_irqsave(&wire.lock, flags);
	news = wire.news;
	resume = news && wire.hub_suspended;
	wire.news = false;
	spin_unlock_irqrestore(&wire.lock, flags);
	if (resume)
		usb_hcd_resume_root_hub(wire.hcd);
	if (news)
		usb_hcd_poll_rh_status(wire.hcd);
}
