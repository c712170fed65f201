// SPDX-License-Identifier: GPL-2.0-only
/*
 * The class's requests to the AudioControl interface. There are two feature units with a volume and a mute
 * on their master channel, and nothing else: any other request, and one of a wrong length, is stalled.
 * The one sampling frequency is no control, so requests about it go to nothing that there is.
 */
#include <linux/minmax.h>
#include "usb.h"

#define CLASS_ON_INTERFACE	(USB_TYPE_CLASS | USB_RECIP_INTERFACE)

static u16 size_of(u8 selector)
{
	return selector == UAC_FU_MUTE ? sizeof(u8) : sizeof(__le16);
}

static s16 within(const struct vexa_volume_range *range, s16 volume)
{
	return clamp(volume, range->min, range->max);
}

static int answer(struct usb_composite_dev *cdev, u16 length, u16 wanted)
{
	cdev->req->length = min(length, wanted);
	cdev->req->zero = length < wanted;
	return usb_ep_queue(cdev->gadget->ep0, cdev->req, GFP_ATOMIC);
}

static int get_volume(const struct vexa_control *control, enum vexa_dir dir, u8 request, s16 *value)
{
	const struct vexa_volume_range *range = &control->range[dir];
	struct vexa_state state;

	switch (request) {
	case UAC_GET_CUR:
		/* A program may have set any value; the host is promised one of the range. */
		vexa_get_state(&state);
		*value = within(range, state.volumes[dir]);
		return 0;
	case UAC_GET_MIN:
		*value = range->min;
		return 0;
	case UAC_GET_MAX:
		*value = range->max;
		return 0;
	case UAC_GET_RES:
		*value = range->res;
		return 0;
	default:
		return -EOPNOTSUPP;
	}
}

static int get(const struct vexa_control *control, struct usb_composite_dev *cdev,
	       const struct usb_ctrlrequest *setup, enum vexa_dir dir, u8 selector)
{
	u16 wanted = le16_to_cpu(setup->wLength);
	struct vexa_state state;
	s16 volume;
	int err;

	if (!wanted)
		return -EOPNOTSUPP;
	if (selector == UAC_FU_VOLUME) {
		err = get_volume(control, dir, setup->bRequest, &volume);
		if (err)
			return err;
		*(__le16 *)cdev->req->buf = cpu_to_le16(volume);
	} else {
		if (setup->bRequest != UAC_GET_CUR)
			return -EOPNOTSUPP;
		vexa_get_state(&state);
		*(u8 *)cdev->req->buf = state.mutes[dir];
	}
	return answer(cdev, size_of(selector), wanted);
}

static void set_complete(struct usb_ep *ep, struct usb_request *request)
{
	const struct vexa_control *control = request->context;
	enum vexa_dir dir = control->dir;

	if (request->status || request->actual != size_of(control->selector))
		return;
	if (control->selector == UAC_FU_MUTE)
		vexa_set_mute(dir, *(u8 *)request->buf);
	else
		vexa_set_volume(dir, within(&control->range[dir],
					    (s16)le16_to_cpup(request->buf)));
}

static int set(struct vexa_control *control, struct usb_composite_dev *cdev,
	       const struct usb_ctrlrequest *setup, enum vexa_dir dir, u8 selector)
{
	u16 length = le16_to_cpu(setup->wLength);

	if (setup->bRequest != UAC_SET_CUR || length != size_of(selector))
		return -EOPNOTSUPP;
	control->dir = dir;
	control->selector = selector;
	cdev->req->context = control;
	cdev->req->complete = set_complete;
	cdev->req->length = length;
	cdev->req->zero = 0;
	return usb_ep_queue(cdev->gadget->ep0, cdev->req, GFP_ATOMIC);
}

static int on_features(struct vexa_control *control, struct usb_composite_dev *cdev,
		       const struct usb_ctrlrequest *setup, enum vexa_dir dir)
{
	u8 selector = le16_to_cpu(setup->wValue) >> 8;
	u8 channel = le16_to_cpu(setup->wValue);

	if (channel || (selector != UAC_FU_MUTE && selector != UAC_FU_VOLUME))
		return -EOPNOTSUPP;
	if (setup->bRequestType & USB_DIR_IN)
		return get(control, cdev, setup, dir, selector);
	return set(control, cdev, setup, dir, selector);
}

int vexa_request(struct vexa_control *control, struct usb_composite_dev *cdev,
		 const struct usb_ctrlrequest *setup)
{
	u8 entity = le16_to_cpu(setup->wIndex) >> 8;
	u8 interface = le16_to_cpu(setup->wIndex);

	if ((setup->bRequestType & ~USB_DIR_IN) != CLASS_ON_INTERFACE ||
	    interface != control->interface)
		return -EOPNOTSUPP;
	/* After a status interrupt: the class reserves the answer, which for now is empty. */
	if (setup->bRequest == UAC_GET_STAT && setup->bRequestType & USB_DIR_IN &&
	    entity <= VEXA_MIC_OUTPUT)
		return answer(cdev, 0, le16_to_cpu(setup->wLength));
	if (entity == VEXA_SPEAKER_FEATURES)
		return on_features(control, cdev, setup, VEXA_SPEAKER);
	if (entity == VEXA_MIC_FEATURES)
		return on_features(control, cdev, setup, VEXA_MIC);
	return -EOPNOTSUPP;
}
