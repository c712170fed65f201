// SPDX-License-Identifier: GPL-2.0-only
/*
 * An endpoint with its requests: all are made when the function is bound, and each goes round for as long
 * as the pipe is open, so that nothing is allocated while the bus runs.
 */
#include <linux/bitops.h>
#include <linux/slab.h>
#include "usb.h"

static void pipe_complete(struct usb_ep *ep, struct usb_request *request);

void vexa_pipe_free(struct vexa_pipe *pipe)
{
	while (pipe->count) {
		struct usb_request *request = pipe->requests[--pipe->count];

		kfree(request->buf);
		usb_ep_free_request(pipe->ep, request);
	}
	pipe->ep = NULL;
}

int vexa_pipe_alloc(struct vexa_pipe *pipe, struct usb_ep *ep, unsigned int count, size_t size)
{
	pipe->ep = ep;
	while (pipe->count < count) {
		struct usb_request *request = usb_ep_alloc_request(ep, GFP_KERNEL);

		if (!request)
			goto no_memory;
		pipe->requests[pipe->count++] = request;
		request->buf = kzalloc(size, GFP_KERNEL);
		if (!request->buf)
			goto no_memory;
		request->length = size;
		request->complete = pipe_complete;
		request->context = pipe;
	}
	pipe->idle = GENMASK(count - 1, 0);
	return 0;

no_memory:
	vexa_pipe_free(pipe);
	return -ENOMEM;
}

/*
 * The lock keeps the packets in order, and the endpoint enabled until the last of them is queued. What the
 * controller refuses stays idle, and gets its turn when another request has ended.
 */
static void queue_idle(struct vexa_pipe *pipe)
{
	unsigned long number;
	int err;

	lockdep_assert_held(&pipe->lock);
	while (pipe->open && pipe->idle) {
		number = __ffs(pipe->idle);
		if (pipe->fill)
			pipe->fill(pipe, pipe->requests[number]);
		err = usb_ep_queue(pipe->ep, pipe->requests[number], GFP_ATOMIC);
		if (err) {
			pr_warn_ratelimited("usb_f_vexa: %s takes no request: %d\n", pipe->ep->name, err);
			return;
		}
		pipe->idle &= ~BIT(number);
	}
}

static void pipe_complete(struct usb_ep *ep, struct usb_request *request)
{
	struct vexa_pipe *pipe = request->context;
	bool gone = request->status == -ESHUTDOWN || request->status == -ECONNRESET;
	unsigned long flags;
	unsigned int i;

	if (!gone && pipe->done)
		pipe->done(pipe, request);
	spin_lock_irqsave(&pipe->lock, flags);
	for (i = 0; i < pipe->count; i++)
		if (pipe->requests[i] == request)
			pipe->idle |= BIT(i);
	if (!gone)
		queue_idle(pipe);
	spin_unlock_irqrestore(&pipe->lock, flags);
}

int vexa_pipe_open(struct vexa_pipe *pipe, struct usb_function *function)
{
	unsigned long flags;
	int err = config_ep_by_speed(function->config->cdev->gadget, function, pipe->ep);

	if (!err)
		err = usb_ep_enable(pipe->ep);
	if (err)
		return err;
	spin_lock_irqsave(&pipe->lock, flags);
	pipe->open = true;
	queue_idle(pipe);
	spin_unlock_irqrestore(&pipe->lock, flags);
	return 0;
}

void vexa_pipe_close(struct vexa_pipe *pipe)
{
	unsigned long flags;
	bool was_open;

	spin_lock_irqsave(&pipe->lock, flags);
	was_open = pipe->open;
	pipe->open = false;
	spin_unlock_irqrestore(&pipe->lock, flags);
	/* Ends what is under way before it returns: without the lock, which pipe_complete takes. */
	if (was_open)
		usb_ep_disable(pipe->ep);
}
