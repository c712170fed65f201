// SPDX-License-Identifier: GPL-2.0-only
/*
 * The status interrupt: after a program has set the speaker's volume or mute, the host is told to read the
 * speaker's feature unit again.
 */
#include <linux/mutex.h>
#include <linux/slab.h>
#include "usb.h"

/* Which function is bound, for programs; held while one of them tells the host. */
static DEFINE_MUTEX(status_mutex);
static struct vexa_status *bound;

/* What the host has not taken yet tells it of this change as well. */
static void raise(struct vexa_status *status)
{
	lockdep_assert_held(&status->lock);
	if (!status->enabled)
		return;	/* a host that configures the device reads the values then */
	status->again = status->busy;
	if (!status->busy)
		status->busy = !usb_ep_queue(status->ep, status->request, GFP_ATOMIC);
}

static void status_complete(struct usb_ep *ep, struct usb_request *request)
{
	struct vexa_status *status = request->context;
	unsigned long flags;

	spin_lock_irqsave(&status->lock, flags);
	status->busy = false;
	if (status->again)
		raise(status);
	spin_unlock_irqrestore(&status->lock, flags);
}

void vexa_status_speaker_set(void)
{
	unsigned long flags;

	mutex_lock(&status_mutex);
	if (bound) {
		spin_lock_irqsave(&bound->lock, flags);
		raise(bound);
		spin_unlock_irqrestore(&bound->lock, flags);
	}
	mutex_unlock(&status_mutex);
}

static void switch_status(struct vexa_status *status, bool enabled)
{
	unsigned long flags;

	spin_lock_irqsave(&status->lock, flags);
	status->enabled = enabled;
	status->again = false;
	spin_unlock_irqrestore(&status->lock, flags);
}

int vexa_status_enable(struct vexa_status *status, struct usb_function *function)
{
	int err;

	vexa_status_disable(status);
	err = config_ep_by_speed(function->config->cdev->gadget, function, status->ep);
	if (!err)
		err = usb_ep_enable(status->ep);
	if (!err)
		switch_status(status, true);
	return err;
}

void vexa_status_disable(struct vexa_status *status)
{
	switch_status(status, false);
	/* Ends what is under way before it returns: without the lock, which status_complete takes. */
	usb_ep_disable(status->ep);
}

int vexa_status_bind(struct vexa_status *status, struct usb_ep *ep)
{
	struct uac1_status_word *word = kmalloc(sizeof(*word), GFP_KERNEL);

	spin_lock_init(&status->lock);
	status->ep = ep;
	status->request = word ? usb_ep_alloc_request(ep, GFP_KERNEL) : NULL;
	if (!status->request) {
		kfree(word);
		return -ENOMEM;
	}
	word->bStatusType = UAC1_STATUS_TYPE_IRQ_PENDING | UAC1_STATUS_TYPE_ORIG_AUDIO_CONTROL_IF;
	word->bOriginator = VEXA_SPEAKER_FEATURES;
	status->request->buf = word;
	status->request->length = sizeof(*word);
	status->request->complete = status_complete;
	status->request->context = status;
	mutex_lock(&status_mutex);
	bound = status;
	mutex_unlock(&status_mutex);
	return 0;
}

void vexa_status_unbind(struct vexa_status *status)
{
	mutex_lock(&status_mutex);
	bound = NULL;
	mutex_unlock(&status_mutex);
	/* The endpoint is disabled: nothing is under way. */
	kfree(status->request->buf);
	usb_ep_free_request(status->ep, status->request);
}
