// SPDX-License-Identifier: GPL-2.0-only
/*
 * The host controller as usbcore sees it: URBs come and are unlinked here, and are given back by
 * the timer.
 *
 * It has no DMA, so that URBs carry plain pointers, and a transaction translator in its root hub,
 * so that the one port takes full speed devices as well.
 */
#include <linux/module.h>
#include <linux/slab.h>
#include "usb_wire.h"

#define FRAME_NUMBERS	0x7ff	/* start-of-frame packets carry 11 bits */

/* Under the lock. */
static struct wire_pipe *pipe_of(struct usb_host_endpoint *hep)
{
	unsigned int address = wire_address(hep->desc.bEndpointAddress);
	struct wire_pipe *pipe = hep->hcpriv;

	if (pipe || address == ADDRESSES)
		return pipe;
	pipe = kzalloc(sizeof(*pipe), GFP_ATOMIC);
	if (!pipe)
		return NULL;
	pipe->hep = hep;
	pipe->address = address;
	list_add_tail(&pipe->link, &wire.pipes);
	hep->hcpriv = pipe;
	wire.count[address].type = usb_endpoint_type(&hep->desc);
	return pipe;
}

/*
 * An isochronous URB takes the slots that follow those before it; after a pause, the first slots
 * not before the second microframe from now. Its packets are never too late (URB_ISO_ASAP).
 */
static void place_iso(struct wire_pipe *pipe, struct urb *urb, bool first)
{
	u64 start, interval = wire_interval(urb), uframe = wire_uframe();
	struct urb *other;

	if (first && pipe->next <= uframe) {
		wire.count[pipe->address].restarts += pipe->next != 0;
		pipe->next = wire_slot(uframe + 2, urb);
	}
	start = pipe->next - pipe->packet * interval;
	list_for_each_entry(other, &pipe->hep->urb_list, urb_list)
		if (other != urb)
			start += other->number_of_packets * interval;
	urb->start_frame = (urb->dev->speed == USB_SPEED_HIGH ? start : start / 8) & 0x3fff;
	urb->error_count = 0;
}

static int enqueue_locked(struct usb_hcd *hcd, struct urb *urb)
{
	struct wire_pipe *pipe;
	bool first;
	int err;

	err = usb_hcd_link_urb_to_ep(hcd, urb);
	if (err)
		return err;
	pipe = pipe_of(urb->ep);
	if (!pipe) {
		usb_hcd_unlink_urb_from_ep(hcd, urb);
		return -ENOMEM;
	}
	first = urb == wire_first_urb(pipe);
	if (usb_pipeisoc(urb->pipe))
		place_iso(pipe, urb, first);
	else if (first)
		pipe->next = max(pipe->next, wire_slot(wire_uframe() + 1, urb));
	wire_arm();
	return 0;
}

static int wire_enqueue(struct usb_hcd *hcd, struct urb *urb, gfp_t gfp)
{
	unsigned long flags;
	int err;

	spin_lock_irqsave(&wire.lock, flags);
	err = enqueue_locked(hcd, urb);
	spin_unlock_irqrestore(&wire.lock, flags);
	return err;
}

static int wire_dequeue(struct usb_hcd *hcd, struct urb *urb, int status)
{
	unsigned long flags;
	int err;

	spin_lock_irqsave(&wire.lock, flags);
	err = usb_hcd_check_unlink_urb(hcd, urb, status);
	if (!err) {
		wire.unlinked = true;
		wire_arm();
	}
	spin_unlock_irqrestore(&wire.lock, flags);
	return err;
}

/* usbcore has every URB of the endpoint back, and submits none. */
static void wire_endpoint_disable(struct usb_hcd *hcd, struct usb_host_endpoint *hep)
{
	struct wire_pipe *pipe;
	unsigned long flags;

	spin_lock_irqsave(&wire.lock, flags);
	pipe = hep->hcpriv;
	hep->hcpriv = NULL;
	if (pipe)
		list_del(&pipe->link);
	spin_unlock_irqrestore(&wire.lock, flags);
	kfree(pipe);
}

/* The present frame of 1 ms, as a start-of-frame packet has it. */
int wire_frame_number(struct usb_hcd *hcd)
{
	unsigned long flags;
	u64 uframe;

	spin_lock_irqsave(&wire.lock, flags);
	uframe = wire_uframe();
	spin_unlock_irqrestore(&wire.lock, flags);
	return (uframe / 8) & FRAME_NUMBERS;
}

static int wire_start(struct usb_hcd *hcd)
{
	hcd->power_budget = 500;	/* mA */
	hcd->state = HC_STATE_RUNNING;
	hcd->uses_new_polling = 1;
	hcd->has_tt = 1;
	return 0;
}

static void wire_stop(struct usb_hcd *hcd)
{
}

const struct hc_driver wire_hc_driver = {
	.description = KBUILD_MODNAME,
	.product_desc = "USB wire without hardware",
	.flags = HCD_USB2,
	.start = wire_start,
	.stop = wire_stop,
	.urb_enqueue = wire_enqueue,
	.urb_dequeue = wire_dequeue,
	.endpoint_disable = wire_endpoint_disable,
	.get_frame_number = wire_frame_number,
	.hub_status_data = wire_hub_status,
	.hub_control = wire_hub_control,
	.bus_suspend = wire_bus_suspend,
	.bus_resume = wire_bus_resume,
};
