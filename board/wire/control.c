// SPDX-License-Identifier: GPL-2.0-only
/*
 * Control transfers. A whole one happens in one microframe, unless the gadget delays its answer.
 * What a device controller answers by itself is answered here.
 */
#include <linux/string.h>
#include "usb_wire.h"

#define TO_GADGET	1	/* the gadget driver has to answer */

static struct wire_ep *wire_ep_of(__le16 index)
{
	unsigned int address = wire_address(le16_to_cpu(index));

	return address < ADDRESSES ? wire_ep_at(address) : NULL;
}

static int get_status(struct urb *urb, const struct usb_ctrlrequest *setup)
{
	unsigned int len = min_t(unsigned int, urb->transfer_buffer_length, 2);
	u8 answer[2] = {};
	struct wire_ep *ep;

	if ((setup->bRequestType & USB_RECIP_MASK) == USB_RECIP_DEVICE) {
		answer[0] = wire.gadget.is_selfpowered << USB_DEVICE_SELF_POWERED |
			    wire.remote_wakeup << USB_DEVICE_REMOTE_WAKEUP;
	} else if ((setup->bRequestType & USB_RECIP_MASK) == USB_RECIP_ENDPOINT) {
		ep = wire_ep_of(setup->wIndex);
		if (!ep)
			return -EPIPE;
		answer[0] = ep->halted;
	}
	memcpy(urb->transfer_buffer, answer, len);
	urb->actual_length = len;
	return 0;
}

static int change_feature(const struct usb_ctrlrequest *setup)
{
	bool set = setup->bRequest == USB_REQ_SET_FEATURE;
	u16 feature = le16_to_cpu(setup->wValue);
	struct wire_ep *ep;

	switch (setup->bRequestType & USB_RECIP_MASK) {
	case USB_RECIP_DEVICE:
		if (feature != USB_DEVICE_REMOTE_WAKEUP)
			return TO_GADGET;
		wire.remote_wakeup = set;
		return 0;
	case USB_RECIP_ENDPOINT:
		ep = wire_ep_of(setup->wIndex);
		if (!ep || feature != USB_ENDPOINT_HALT)
			return -EPIPE;
		if (set)
			ep->halted = true;
		else if (!ep->wedged)
			ep->halted = false;
		return 0;
	}
	return TO_GADGET;
}

/* Returns 0, an error for a stall, or TO_GADGET. */
static int answer_here(struct urb *urb, const struct usb_ctrlrequest *setup)
{
	if ((setup->bRequestType & USB_TYPE_MASK) != USB_TYPE_STANDARD)
		return TO_GADGET;
	switch (setup->bRequest) {
	case USB_REQ_SET_ADDRESS:
		usb_gadget_set_state(&wire.gadget,
				     setup->wValue ? USB_STATE_ADDRESS : USB_STATE_DEFAULT);
		return 0;
	case USB_REQ_GET_STATUS:
		return get_status(urb, setup);
	case USB_REQ_CLEAR_FEATURE:
	case USB_REQ_SET_FEATURE:
		return change_feature(setup);
	}
	return TO_GADGET;
}

static void end_control(struct urb *urb, u64 uframe, int status)
{
	const struct usb_ctrlrequest *setup = (struct usb_ctrlrequest *)urb->setup_packet;

	wire_log(uframe, "control %02x %02x value=%04x index=%04x length=%u: %d bytes=%u",
		 setup->bRequestType, setup->bRequest, le16_to_cpu(setup->wValue),
		 le16_to_cpu(setup->wIndex), le16_to_cpu(setup->wLength), status,
		 urb->actual_length);
	wire.count[0].errors += !!status;
	wire_give_urb(urb, status);
}

/* The setup packet, which ends what was under way; drops the lock. As answer_here returns. */
static int send_setup(struct urb *urb)
{
	struct usb_ctrlrequest setup = *(struct usb_ctrlrequest *)urb->setup_packet;
	struct usb_gadget_driver *driver;
	struct wire_request *request;
	int result;

	while ((request = wire_first_request(EP0)))
		wire_give_request(EP0, request, -EPROTO);
	EP0->halted = false;
	result = answer_here(urb, &setup);
	if (result != TO_GADGET)
		return result;
	if (!wire_link_up())	/* the lock was dropped */
		return -EPROTO;
	driver = wire.driver;
	spin_unlock(&wire.lock);
	result = driver->setup(&wire.gadget, &setup);
	spin_lock(&wire.lock);
	return result < 0 ? -EPIPE : TO_GADGET;
}

/* Data and status stage with the gadget's request; drops the lock. */
static void exchange(struct urb *urb, struct wire_request *request, u64 uframe)
{
	unsigned int len = min(request->req.length, urb->transfer_buffer_length);
	int status = 0;

	if (usb_urb_dir_in(urb)) {
		memcpy(urb->transfer_buffer, request->req.buf, len);
		if (request->req.length > urb->transfer_buffer_length)
			status = -EOVERFLOW;
	} else {
		memcpy(request->req.buf, urb->transfer_buffer, len);
	}
	request->req.actual = len;
	urb->actual_length = len;
	wire.count[0].bytes += len;
	wire_give_request(EP0, request, 0);
	end_control(urb, uframe, EP0->halted ? -EPIPE : status);
}

/**
 * wire_serve_control() - a control transfer's turn; drops the lock
 * @pipe: its pipe; may be gone afterwards
 * @urb: the pipe's first
 * @uframe: the microframe
 *
 * An injected fault hits the setup packet, so that the gadget notices nothing; babble hits the
 * answer.
 */
void wire_serve_control(struct wire_pipe *pipe, struct urb *urb, u64 uframe)
{
	struct wire_request *request;
	enum wire_fault fault;
	int result;

	pipe->next = uframe + 1;
	if (!wire_link_up()) {
		end_control(urb, uframe, -EPROTO);
		return;
	}
	if (!pipe->asked) {
		fault = wire_fault_take(0, uframe);
		if (wire_try_again(pipe, fault))
			return;
		if (fault && fault != FAULT_BABBLE) {
			end_control(urb, uframe, wire_fault_status(fault));
			return;
		}
		pipe->asked = true;
		wire.count[0].packets++;
		result = send_setup(urb);
		if (fault == FAULT_BABBLE)
			result = wire_fault_status(fault);
		if (result != TO_GADGET) {
			end_control(urb, uframe, result);
			return;
		}
	}
	request = wire_first_request(EP0);
	if (request)
		exchange(urb, request, uframe);
}
