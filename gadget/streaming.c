// SPDX-License-Identifier: GPL-2.0-only
/*
 * An AudioStreaming interface: alternate setting 0 is silence, 1 carries 48 frames each millisecond.
 *
 * Hosts try the settings out while they enumerate: each stream goes on and off again within half a
 * millisecond. That is no stream to the daemon, so a setting counts as on only when it has stood for a
 * few milliseconds; off counts at once. Sound moves from the first packet on.
 */
#include <linux/string.h>
#include "usb.h"

static void take_sound(struct vexa_pipe *pipe, struct usb_request *request)
{
	/* A packet that arrived damaged is lost, as on any isochronous pipe. */
	if (!request->status)
		vexa_packet(VEXA_SPEAKER, request->buf, request->actual / sizeof(s16));
}

/* What a stopping PCM has handed over is under way already and still arrives. */
static void give_sound(struct vexa_pipe *pipe, struct usb_request *request)
{
	request->length = VEXA_PACKET_BYTES;
	if (!vexa_packet(VEXA_MIC, request->buf, VEXA_PACKET_FRAMES))
		memset(request->buf, 0, VEXA_PACKET_BYTES);
}

/*
 * The sound passes at the pace of the host's frames and has no clock of its own here, so the host is told
 * to send exactly 48 frames in each packet: at full speed as 10.14 bits in three bytes, at high speed as
 * 16.16 bits in four, for the packet and not for the microframe, since that is what hosts expect.
 */
static void give_feedback(struct vexa_pipe *pipe, struct usb_request *request)
{
	const struct vexa_streaming *streaming =
		container_of(pipe, struct vexa_streaming, feedback);
	bool high_speed = streaming->gadget->speed == USB_SPEED_HIGH;
	__le32 value = cpu_to_le32(VEXA_PACKET_FRAMES << (high_speed ? 16 : 14));

	request->length = high_speed ? 4 : 3;
	memcpy(request->buf, &value, request->length);
}

static enum hrtimer_restart settled(struct hrtimer *timer)
{
	struct vexa_streaming *streaming = container_of(timer, struct vexa_streaming, timer);
	unsigned long flags;

	/* A timer that a new setting came too late to cancel has the wrong time. */
	spin_lock_irqsave(&streaming->lock, flags);
	if (streaming->alt && !streaming->suspended && !streaming->told &&
	    !ktime_before(ktime_get(), streaming->settled_at)) {
		streaming->told = true;
		vexa_set_active(streaming->dir, true);
	}
	spin_unlock_irqrestore(&streaming->lock, flags);
	return HRTIMER_NORESTART;
}

/* The interface's state has changed: tells of off now, of on when it has settled. */
static void change(struct vexa_streaming *streaming, unsigned int alt, bool suspended)
{
	unsigned long flags;

	hrtimer_try_to_cancel(&streaming->timer);
	spin_lock_irqsave(&streaming->lock, flags);
	streaming->alt = alt;
	streaming->suspended = suspended;
	if (streaming->told) {
		streaming->told = false;
		vexa_set_active(streaming->dir, false);
	}
	if (alt && !suspended) {
		streaming->settled_at = ktime_add(ktime_get(), streaming->settle);
		hrtimer_start(&streaming->timer, streaming->settled_at, HRTIMER_MODE_ABS);
	}
	spin_unlock_irqrestore(&streaming->lock, flags);
}

int vexa_streaming_set_alt(struct vexa_streaming *streaming, struct usb_function *function,
			   unsigned int alt)
{
	int err;

	if (alt > 1)
		return -EINVAL;
	change(streaming, 0, false);
	vexa_pipe_close(&streaming->data);
	vexa_pipe_close(&streaming->feedback);
	if (!alt)
		return 0;
	err = vexa_pipe_open(&streaming->data, function);
	if (!err && streaming->feedback.ep)
		err = vexa_pipe_open(&streaming->feedback, function);
	if (err)
		vexa_pipe_close(&streaming->data);
	else
		change(streaming, alt, false);
	return err;
}

void vexa_streaming_suspend(struct vexa_streaming *streaming, bool suspended)
{
	if (streaming->suspended != suspended)
		change(streaming, streaming->alt, suspended);
}

void vexa_streaming_init(struct vexa_streaming *streaming, enum vexa_dir dir)
{
	streaming->dir = dir;
	spin_lock_init(&streaming->lock);
	spin_lock_init(&streaming->data.lock);
	spin_lock_init(&streaming->feedback.lock);
	hrtimer_init(&streaming->timer, CLOCK_MONOTONIC, HRTIMER_MODE_ABS);
	streaming->timer.function = settled;
	if (dir == VEXA_SPEAKER)
		streaming->data.done = take_sound;
	else
		streaming->data.fill = give_sound;
	streaming->feedback.fill = give_feedback;
}

int vexa_streaming_bind(struct vexa_streaming *streaming, struct usb_gadget *gadget,
			const struct vexa_options *options, struct usb_ep *data,
			struct usb_ep *feedback)
{
	int err = vexa_pipe_alloc(&streaming->data, data, options->requests, VEXA_PACKET_MAX);

	if (!err && feedback)
		err = vexa_pipe_alloc(&streaming->feedback, feedback, 1, sizeof(__le32));
	if (err)
		vexa_pipe_free(&streaming->data);
	streaming->gadget = gadget;
	streaming->settle = ms_to_ktime(options->settle_ms);
	return err;
}

void vexa_streaming_unbind(struct vexa_streaming *streaming)
{
	hrtimer_cancel(&streaming->timer);
	vexa_pipe_free(&streaming->data);
	vexa_pipe_free(&streaming->feedback);
}
