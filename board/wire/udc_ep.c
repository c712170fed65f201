// SPDX-License-Identifier: GPL-2.0-only
/*
 * The device controller's endpoints. Requests that are taken back or lose their endpoint complete
 * within the call, with the lock dropped.
 */
#include <linux/slab.h>
#include "usb_wire.h"

#define EP0_PACKET	64
#define PACKET_MAX	1024

static bool is_on(const struct wire_ep *ep)
{
	return ep == EP0 || ep->desc;
}

static bool is_iso(const struct wire_ep *ep)
{
	return ep != EP0 && usb_endpoint_xfer_isoc(ep->desc);
}

static bool has_unsent(const struct wire_ep *ep)
{
	return ep != EP0 && usb_endpoint_dir_in(ep->desc) && !list_empty(&ep->requests);
}

static int ep_enable(struct usb_ep *usb_ep, const struct usb_endpoint_descriptor *desc)
{
	struct wire_ep *ep = to_wire_ep(usb_ep);
	unsigned long flags;
	int err = -EINVAL;

	spin_lock_irqsave(&wire.lock, flags);
	if (ep != EP0 && !ep->desc && desc && wire_address(desc->bEndpointAddress) == ep->address) {
		ep->desc = desc;
		ep->halted = false;
		ep->wedged = false;
		usb_ep->maxpacket = usb_endpoint_maxp(desc);
		wire_log(wire_uframe(), "%s enable maxpacket=%u interval=%u attributes=%02x",
			 ep->name, usb_ep->maxpacket, desc->bInterval, desc->bmAttributes);
		err = 0;
	}
	spin_unlock_irqrestore(&wire.lock, flags);
	return err;
}

static int ep_disable(struct usb_ep *usb_ep)
{
	struct wire_ep *ep = to_wire_ep(usb_ep);
	struct wire_request *request;
	unsigned long flags;
	int err = -EINVAL;

	spin_lock_irqsave(&wire.lock, flags);
	if (ep != EP0 && ep->desc) {
		ep->desc = NULL;
		wire_log(wire_uframe(), "%s disable", ep->name);
		while ((request = wire_first_request(ep)))
			wire_give_request(ep, request, -ESHUTDOWN);
		wire_kick(ep->address, wire_uframe());	/* the host finds nobody there */
		err = 0;
	}
	spin_unlock_irqrestore(&wire.lock, flags);
	return err;
}

static struct usb_request *ep_alloc_request(struct usb_ep *usb_ep, gfp_t gfp)
{
	struct wire_request *request = kzalloc(sizeof(*request), gfp);

	if (!request)
		return NULL;
	INIT_LIST_HEAD(&request->link);
	return &request->req;
}

static void ep_free_request(struct usb_ep *usb_ep, struct usb_request *req)
{
	WARN_ON(!list_empty(&to_wire_request(req)->link));
	kfree(to_wire_request(req));
}

/* The host has been polling all the while, and meets the request at its next slot. */
static void offer(struct wire_ep *ep)
{
	if (!is_iso(ep))
		wire_kick(ep->address, wire_uframe() + 1);
}

static int ep_queue(struct usb_ep *usb_ep, struct usb_request *req, gfp_t gfp)
{
	struct wire_request *request = to_wire_request(req);
	struct wire_ep *ep = to_wire_ep(usb_ep);
	unsigned long flags;
	int err = 0;

	spin_lock_irqsave(&wire.lock, flags);
	if (!list_empty(&request->link)) {
		err = -EINVAL;
	} else if (!is_on(ep) || !wire.driver || !(wire.port & USB_PORT_STAT_ENABLE)) {
		err = -ESHUTDOWN;
	} else {
		req->status = -EINPROGRESS;
		req->actual = 0;
		list_add_tail(&request->link, &ep->requests);
		offer(ep);
	}
	spin_unlock_irqrestore(&wire.lock, flags);
	return err;
}

static int ep_dequeue(struct usb_ep *usb_ep, struct usb_request *req)
{
	struct wire_ep *ep = to_wire_ep(usb_ep);
	struct wire_request *request;
	unsigned long flags;
	int err = -EINVAL;

	spin_lock_irqsave(&wire.lock, flags);
	list_for_each_entry(request, &ep->requests, link)
		if (&request->req == req) {
			wire_give_request(ep, request, -ECONNRESET);
			err = 0;
			break;
		}
	spin_unlock_irqrestore(&wire.lock, flags);
	return err;
}

static int change_halt(struct usb_ep *usb_ep, bool halted, bool wedged)
{
	struct wire_ep *ep = to_wire_ep(usb_ep);
	unsigned long flags;
	int err = 0;

	spin_lock_irqsave(&wire.lock, flags);
	if (!is_on(ep) || is_iso(ep)) {
		err = -EINVAL;
	} else if (halted && has_unsent(ep)) {
		err = -EAGAIN;	/* what is queued goes out first */
	} else {
		ep->halted = halted;
		ep->wedged = wedged;
		wire_kick(ep->address, wire_uframe() + 1);
	}
	spin_unlock_irqrestore(&wire.lock, flags);
	return err;
}

static int ep_set_halt(struct usb_ep *usb_ep, int value)
{
	return change_halt(usb_ep, value, false);
}

static int ep_set_wedge(struct usb_ep *usb_ep)
{
	return change_halt(usb_ep, true, true);
}

static const struct usb_ep_ops ep_ops = {
	.enable = ep_enable,
	.disable = ep_disable,
	.alloc_request = ep_alloc_request,
	.free_request = ep_free_request,
	.queue = ep_queue,
	.dequeue = ep_dequeue,
	.set_halt = ep_set_halt,
	.set_wedge = ep_set_wedge,
};

/* Makes an endpoint, and offers it to the gadget unless it is one of the two numbered 0. */
void wire_ep_init(struct wire_ep *ep, int number, bool in)
{
	struct usb_ep *usb_ep = &ep->ep;

	ep->address = number ? 2 * number + in : 0;
	scnprintf(ep->name, sizeof(ep->name), "%s", wire_address_name(ep->address));
	INIT_LIST_HEAD(&ep->requests);
	INIT_LIST_HEAD(&usb_ep->ep_list);
	usb_ep->name = ep->name;
	usb_ep->ops = &ep_ops;
	usb_ep_set_maxpacket_limit(usb_ep, number ? PACKET_MAX : EP0_PACKET);
	if (!number) {
		usb_ep->caps.type_control = true;
		usb_ep->caps.dir_in = true;
		usb_ep->caps.dir_out = true;
		return;
	}
	usb_ep->caps.type_iso = true;
	usb_ep->caps.type_bulk = true;
	usb_ep->caps.type_int = true;
	usb_ep->caps.dir_in = in;
	usb_ep->caps.dir_out = !in;
	list_add_tail(&usb_ep->ep_list, &wire.gadget.ep_list);
}
