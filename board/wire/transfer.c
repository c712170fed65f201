// SPDX-License-Identifier: GPL-2.0-only
/*
 * Packets between the host's URBs and the gadget's requests, for all but control transfers.
 * Everything here runs in the timer, under the lock.
 */
#include <linux/ktime.h>
#include <linux/string.h>
#include "usb_wire.h"

#define TRIES	3	/* of a packet that has to be acknowledged, before the host gives up */

/* The enabled endpoint with an address of ours, or NULL. */
struct wire_ep *wire_ep_at(unsigned int address)
{
	bool in = address & 1 || !address;
	struct wire_ep *ep = in ? &wire.in[address / 2] : &wire.out[address / 2];

	return ep == EP0 || ep->desc ? ep : NULL;
}

/* Our address for a descriptor's; ADDRESSES when there is no such endpoint. */
unsigned int wire_address(u8 descriptor_address)
{
	unsigned int number = descriptor_address & USB_ENDPOINT_NUMBER_MASK;

	if (number >= ENDPOINTS)
		return ADDRESSES;
	return number ? 2 * number + !!(descriptor_address & USB_DIR_IN) : 0;
}

struct wire_request *wire_first_request(struct wire_ep *ep)
{
	return list_first_entry_or_null(&ep->requests, struct wire_request, link);
}

/* Completes a request of the gadget's; drops the lock. */
void wire_give_request(struct wire_ep *ep, struct wire_request *request, int status)
{
	list_del_init(&request->link);
	request->req.status = status;
	spin_unlock(&wire.lock);
	usb_gadget_giveback_request(&ep->ep, &request->req);
	spin_lock(&wire.lock);
}

/*
 * Gives an URB back to the host, for the timer alone. Drops the lock, and the pipe may be gone
 * afterwards. When the URB was unlinked, usbcore puts the unlinker's status in place of
 * this one.
 */
void wire_give_urb(struct urb *urb, int status)
{
	struct wire_pipe *pipe = urb->ep->hcpriv;

	if (urb == wire_first_urb(pipe)) {
		pipe->packet = 0;
		pipe->tries = 0;
		pipe->asked = false;
	}
	usb_hcd_unlink_urb_from_ep(wire.hcd, urb);
	spin_unlock(&wire.lock);
	usb_hcd_giveback_urb(wire.hcd, urb, status);
	spin_lock(&wire.lock);
}

/*
 * Whether a packet that went wrong is sent once more: one that is not acknowledged, or whose answer does not
 * come or is spoilt. The gadget's controller discards what it has seen already.
 */
bool wire_try_again(struct wire_pipe *pipe, enum wire_fault fault)
{
	return (fault == FAULT_LOST || fault == FAULT_CRC) && ++pipe->tries < TRIES;
}

/* What the host makes of a fault. */
int wire_fault_status(enum wire_fault fault)
{
	switch (fault) {
	case FAULT_LOST:
		return -EPROTO;
	case FAULT_CRC:
		return -EILSEQ;
	case FAULT_BABBLE:
		return -EOVERFLOW;
	default:
		return 0;
	}
}

static void count_packet(struct wire_count *count, u64 uframe, unsigned int bytes)
{
	count->packets++;
	count->bytes += bytes;
	count->last = uframe;
	count->last_ns = wire_uframe_ns(uframe);
	wire.late_ns_max = max_t(s64, wire.late_ns_max, ktime_get_ns() - count->last_ns);
}

/*
 * An OUT packet: the host learns nothing of what becomes of it. One that is lost leaves the
 * gadget's request waiting, a spoilt one completes it, as controllers do that work through their
 * requests by the frame.
 */
static void move_iso_out(struct wire_count *count, struct wire_ep *ep, const u8 *data,
			 unsigned int len, enum wire_fault fault)
{
	struct wire_request *request = ep ? wire_first_request(ep) : NULL;
	int status = fault == FAULT_LOST ? 0 : wire_fault_status(fault);

	if (!request || fault == FAULT_LOST) {
		count->lost += fault != FAULT_LOST;
		return;
	}
	if (len > request->req.length)
		status = -EOVERFLOW;
	if (fault != FAULT_CRC) {
		request->req.actual = min(len, request->req.length);
		memcpy(request->req.buf, data, request->req.actual);
	}
	count->bytes += request->req.actual;
	wire_give_request(ep, request, status);
}

/* An IN packet: the gadget learns nothing of what becomes of it. Returns the packet's status. */
static int move_iso_in(struct wire_count *count, struct wire_ep *ep, u8 *data, unsigned int room,
		       unsigned int *actual, enum wire_fault fault)
{
	struct wire_request *request = ep ? wire_first_request(ep) : NULL;
	int status = wire_fault_status(fault);

	if (!ep)
		return -EPROTO;
	if (fault == FAULT_LOST)
		return status;
	if (!request) {
		count->empty++;
		return status;
	}
	if (request->req.length > room)
		status = -EOVERFLOW;
	request->req.actual = request->req.length;
	if (fault != FAULT_CRC) {
		*actual = min(room, request->req.length);
		memcpy(data, request->req.buf, *actual);
	}
	count->bytes += *actual;
	wire_give_request(ep, request, 0);
	return status;
}

/**
 * wire_serve_iso() - move an isochronous packet; drops the lock
 * @pipe: its pipe; may be gone afterwards
 * @urb: the pipe's first
 * @uframe: the microframe it belongs to
 */
void wire_serve_iso(struct wire_pipe *pipe, struct urb *urb, u64 uframe)
{
	struct usb_iso_packet_descriptor *packet = &urb->iso_frame_desc[pipe->packet];
	struct wire_count *count = &wire.count[pipe->address];
	struct wire_ep *ep = wire_link_up() ? wire_ep_at(pipe->address) : NULL;
	enum wire_fault fault = ep ? wire_fault_take(pipe->address, uframe) : FAULT_NONE;
	u8 *data = urb->transfer_buffer + packet->offset;

	count->late += uframe < wire_uframe();
	count_packet(count, uframe, 0);
	pipe->next = uframe + wire_interval(urb);
	packet->status = 0;
	packet->actual_length = 0;
	if (usb_urb_dir_in(urb)) {
		packet->status = move_iso_in(count, ep, data, packet->length,
					     &packet->actual_length, fault);
	} else {
		packet->actual_length = packet->length;
		move_iso_out(count, ep, data, packet->length, fault);
	}
	urb->actual_length += packet->actual_length;
	if (packet->status) {
		urb->error_count++;
		count->errors++;
	}
	if (++pipe->packet == urb->number_of_packets)
		wire_give_urb(urb, 0);
}

/* What a pipe's present packet does to both sides. */
struct outcome {
	bool request_ends, urb_ends;
	int request_status, urb_status;
};

static struct outcome move_out(struct wire_request *request, struct urb *urb, unsigned int maxp)
{
	unsigned int len = min(urb->transfer_buffer_length - urb->actual_length, maxp);
	unsigned int room = request->req.length - request->req.actual;
	bool last = urb->transfer_buffer_length - urb->actual_length == len;
	unsigned int taken = min(len, room);

	memcpy(request->req.buf + request->req.actual,
	       urb->transfer_buffer + urb->actual_length, taken);
	request->req.actual += taken;
	urb->actual_length += len;
	return (struct outcome) {
		.request_ends = len < maxp || len >= room,
		.request_status = len > room ? -EOVERFLOW : 0,
		.urb_ends = len < maxp || (last && !(urb->transfer_flags & URB_ZERO_PACKET)),
	};
}

static struct outcome move_in(struct wire_request *request, struct urb *urb, unsigned int maxp)
{
	unsigned int len = min(request->req.length - request->req.actual, maxp);
	unsigned int room = urb->transfer_buffer_length - urb->actual_length;
	bool last = request->req.length - request->req.actual == len;
	unsigned int taken = min(len, room);
	int status = 0;

	memcpy(urb->transfer_buffer + urb->actual_length,
	       request->req.buf + request->req.actual, taken);
	request->req.actual += len;
	urb->actual_length += taken;
	if (len > room)
		status = -EOVERFLOW;
	else if (len < maxp && len < room && urb->transfer_flags & URB_SHORT_NOT_OK)
		status = -EREMOTEIO;
	return (struct outcome) {
		.request_ends = len < maxp || (last && !request->req.zero),
		.urb_ends = len < maxp || len >= room,
		.urb_status = status,
	};
}

/* A packet that went wrong. */
static void serve_fault(struct wire_pipe *pipe, struct wire_ep *ep, struct urb *urb,
			enum wire_fault fault)
{
	if (wire_try_again(pipe, fault))
		return;
	if (fault == FAULT_BABBLE && !usb_urb_dir_in(urb)) {
		wire_give_request(ep, wire_first_request(ep), -EOVERFLOW);
		wire_give_urb(urb, 0);
		return;
	}
	wire.count[pipe->address].errors++;
	wire_give_urb(urb, wire_fault_status(fault));
}

/**
 * wire_serve_data() - move a bulk or interrupt packet; drops the lock
 * @pipe: its pipe; may be gone afterwards
 * @urb: the pipe's first
 * @uframe: the microframe
 */
void wire_serve_data(struct wire_pipe *pipe, struct urb *urb, u64 uframe)
{
	struct wire_ep *ep = wire_link_up() ? wire_ep_at(pipe->address) : NULL;
	struct wire_count *count = &wire.count[pipe->address];
	unsigned int before = urb->actual_length;
	struct wire_request *request;
	struct outcome outcome;
	enum wire_fault fault;

	pipe->next = wire_slot(uframe + 1, urb);
	if (!ep || ep->halted) {
		count->errors++;
		wire_give_urb(urb, ep ? -EPIPE : -EPROTO);
		return;
	}
	request = wire_first_request(ep);
	if (!request)
		return;
	fault = wire_fault_take(pipe->address, uframe);
	if (fault) {
		serve_fault(pipe, ep, urb, fault);
		return;
	}
	pipe->tries = 0;
	if (usb_urb_dir_in(urb))
		outcome = move_in(request, urb, usb_endpoint_maxp(ep->desc));
	else
		outcome = move_out(request, urb, usb_endpoint_maxp(ep->desc));
	count_packet(count, uframe, urb->actual_length - before);
	count->errors += !!outcome.urb_status;
	if (outcome.request_ends)
		wire_give_request(ep, request, outcome.request_status);
	if (outcome.urb_ends)
		wire_give_urb(urb, outcome.urb_status);
}
