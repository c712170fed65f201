// SPDX-License-Identifier: GPL-2.0-only
/*
 * What the host is told of the function, by "USB Device Class Definition for Audio Devices" 1.0:
 *
 *	interface 0, control:	1 input: host -> 2 features -> 3 output: loudspeaker
 *				4 input: microphone -> 5 features -> 6 output: host
 *	interface 1, speaker:	alternate setting 0 nothing, 1 the data and, asynchronous, its feedback
 *	interface 2, mic:	alternate setting 0 nothing, 1 the data
 *
 * A packet each millisecond at both speeds.
 */
#include <linux/string.h>
#include "usb.h"

/* bInterval of a millisecond: at full speed in milliseconds, at high speed 2^(N-1) microframes. */
#define FULL_SPEED_INTERVAL	1
#define HIGH_SPEED_INTERVAL	4
/*
 * The feedback never changes, so it need not be asked for often: each 2^5 ms. Linux counts microframes at
 * high speed, so that it asks each 4 ms.
 */
#define FEEDBACK_REFRESH	5
#define STATUS_BYTES		sizeof(struct uac1_status_word)

#define INPUT(id, type) {							\
	.bLength = UAC_DT_INPUT_TERMINAL_SIZE,					\
	.bDescriptorType = USB_DT_CS_INTERFACE,					\
	.bDescriptorSubtype = UAC_INPUT_TERMINAL,				\
	.bTerminalID = id,							\
	.wTerminalType = cpu_to_le16(type),					\
	.bNrChannels = 1,							\
}

#define FEATURES(id, source) {							\
	.bLength = UAC_DT_FEATURE_UNIT_SIZE(1),					\
	.bDescriptorType = USB_DT_CS_INTERFACE,					\
	.bDescriptorSubtype = UAC_FEATURE_UNIT,					\
	.bUnitID = id,								\
	.bSourceID = source,							\
	.bControlSize = sizeof(__le16),						\
	.bmaControls = { cpu_to_le16(UAC_CONTROL_BIT(UAC_FU_MUTE) |		\
				     UAC_CONTROL_BIT(UAC_FU_VOLUME)) },		\
}

#define OUTPUT(id, source, type) {						\
	.bLength = UAC_DT_OUTPUT_TERMINAL_SIZE,					\
	.bDescriptorType = USB_DT_CS_INTERFACE,					\
	.bDescriptorSubtype = UAC_OUTPUT_TERMINAL,				\
	.bTerminalID = id,							\
	.wTerminalType = cpu_to_le16(type),					\
	.bSourceID = source,							\
}

#define INTERFACE(subclass, setting, endpoints) {				\
	.bLength = USB_DT_INTERFACE_SIZE,					\
	.bDescriptorType = USB_DT_INTERFACE,					\
	.bAlternateSetting = setting,						\
	.bNumEndpoints = endpoints,						\
	.bInterfaceClass = USB_CLASS_AUDIO,					\
	.bInterfaceSubClass = subclass,						\
}

#define GENERAL(terminal) {							\
	.bLength = UAC_DT_AS_HEADER_SIZE,					\
	.bDescriptorType = USB_DT_CS_INTERFACE,					\
	.bDescriptorSubtype = UAC_AS_GENERAL,					\
	.bTerminalLink = terminal,						\
	.bDelay = 1,								\
	.wFormatTag = cpu_to_le16(UAC_FORMAT_TYPE_I_PCM),			\
}

#define ENDPOINT(direction, attributes, bytes, interval) {			\
	.bLength = USB_DT_ENDPOINT_AUDIO_SIZE,					\
	.bDescriptorType = USB_DT_ENDPOINT,					\
	.bEndpointAddress = direction,						\
	.bmAttributes = attributes,						\
	.wMaxPacketSize = cpu_to_le16(bytes),					\
	.bInterval = interval,							\
}

#define ENDPOINTS(direction, attributes, bytes) {				\
	ENDPOINT(direction, attributes, bytes, FULL_SPEED_INTERVAL),		\
	ENDPOINT(direction, attributes, bytes, HIGH_SPEED_INTERVAL),		\
}

static const struct vexa_descriptors template = {
	.control = INTERFACE(USB_SUBCLASS_AUDIOCONTROL, 0, 1),
	.header = {
		.bLength = UAC_DT_AC_HEADER_SIZE(VEXA_DIRS),
		.bDescriptorType = USB_DT_CS_INTERFACE,
		.bDescriptorSubtype = UAC_HEADER,
		.bcdADC = cpu_to_le16(0x0100),
		.wTotalLength = cpu_to_le16(UAC_DT_AC_HEADER_SIZE(VEXA_DIRS) +
					    VEXA_DIRS * (UAC_DT_INPUT_TERMINAL_SIZE +
							 UAC_DT_FEATURE_UNIT_SIZE(1) +
							 UAC_DT_OUTPUT_TERMINAL_SIZE)),
		.bInCollection = VEXA_DIRS,
	},
	.input = {
		[VEXA_SPEAKER] = INPUT(VEXA_SPEAKER_INPUT, UAC_TERMINAL_STREAMING),
		[VEXA_MIC] = INPUT(VEXA_MIC_INPUT, UAC_INPUT_TERMINAL_MICROPHONE),
	},
	.features = {
		[VEXA_SPEAKER] = FEATURES(VEXA_SPEAKER_FEATURES, VEXA_SPEAKER_INPUT),
		[VEXA_MIC] = FEATURES(VEXA_MIC_FEATURES, VEXA_MIC_INPUT),
	},
	.output = {
		[VEXA_SPEAKER] = OUTPUT(VEXA_SPEAKER_OUTPUT, VEXA_SPEAKER_FEATURES,
					UAC_OUTPUT_TERMINAL_SPEAKER),
		[VEXA_MIC] = OUTPUT(VEXA_MIC_OUTPUT, VEXA_MIC_FEATURES, UAC_TERMINAL_STREAMING),
	},
	.off = {
		[VEXA_SPEAKER] = INTERFACE(USB_SUBCLASS_AUDIOSTREAMING, 0, 0),
		[VEXA_MIC] = INTERFACE(USB_SUBCLASS_AUDIOSTREAMING, 0, 0),
	},
	.on = {
		[VEXA_SPEAKER] = INTERFACE(USB_SUBCLASS_AUDIOSTREAMING, 1, 2),
		[VEXA_MIC] = INTERFACE(USB_SUBCLASS_AUDIOSTREAMING, 1, 1),
	},
	.general = {
		[VEXA_SPEAKER] = GENERAL(VEXA_SPEAKER_INPUT),
		[VEXA_MIC] = GENERAL(VEXA_MIC_OUTPUT),
	},
	.format = {
		.bLength = UAC_FORMAT_TYPE_I_DISCRETE_DESC_SIZE(1),
		.bDescriptorType = USB_DT_CS_INTERFACE,
		.bDescriptorSubtype = UAC_FORMAT_TYPE,
		.bFormatType = UAC_FORMAT_TYPE_I,
		.bNrChannels = 1,
		.bSubframeSize = sizeof(s16),
		.bBitResolution = 16,
		.bSamFreqType = 1,
		.tSamFreq = { { VEXA_RATE & 0xff, VEXA_RATE >> 8 & 0xff, VEXA_RATE >> 16 } },
	},
	.iso = {
		.bLength = UAC_ISO_ENDPOINT_DESC_SIZE,
		.bDescriptorType = USB_DT_CS_ENDPOINT,
		.bDescriptorSubtype = UAC_EP_GENERAL,
	},
	.status_ep = ENDPOINTS(USB_DIR_IN, USB_ENDPOINT_XFER_INT, STATUS_BYTES),
	.data_ep = {
		[VEXA_SPEAKER] = ENDPOINTS(USB_DIR_OUT, USB_ENDPOINT_XFER_ISOC | USB_ENDPOINT_SYNC_ASYNC,
					   VEXA_PACKET_MAX),
		[VEXA_MIC] = ENDPOINTS(USB_DIR_IN, USB_ENDPOINT_XFER_ISOC | USB_ENDPOINT_SYNC_ASYNC,
				       VEXA_PACKET_MAX),
	},
	.feedback_ep = {
		[VEXA_FULL_SPEED] = ENDPOINT(USB_DIR_IN, USB_ENDPOINT_XFER_ISOC, 3, FULL_SPEED_INTERVAL),
		[VEXA_HIGH_SPEED] = ENDPOINT(USB_DIR_IN, USB_ENDPOINT_XFER_ISOC, 4, HIGH_SPEED_INTERVAL),
	},
};

void vexa_descriptors_init(struct vexa_descriptors *descriptors, const struct vexa_options *options)
{
	int speed;

	*descriptors = template;
	descriptors->output[VEXA_SPEAKER].wTerminalType = cpu_to_le16(options->terminal[VEXA_SPEAKER]);
	descriptors->input[VEXA_MIC].wTerminalType = cpu_to_le16(options->terminal[VEXA_MIC]);
	for (speed = 0; speed < VEXA_SPEEDS; speed++)
		descriptors->feedback_ep[speed].bRefresh = FEEDBACK_REFRESH;
	if (!options->adaptive)
		return;
	descriptors->on[VEXA_SPEAKER].bNumEndpoints = 1;
	for (speed = 0; speed < VEXA_SPEEDS; speed++)
		descriptors->data_ep[VEXA_SPEAKER][speed].bmAttributes =
			USB_ENDPOINT_XFER_ISOC | USB_ENDPOINT_SYNC_ADAPTIVE;
}

void vexa_descriptors_number(struct vexa_descriptors *descriptors, u8 control,
			     const u8 streaming[VEXA_DIRS], const struct usb_string *strings)
{
	enum vexa_dir dir;

	descriptors->control.bInterfaceNumber = control;
	descriptors->control.iInterface = strings[VEXA_FUNCTION_STRING].id;
	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++) {
		u8 name = strings[VEXA_TERMINAL_STRING + dir].id;

		descriptors->header.baInterfaceNr[dir] = streaming[dir];
		descriptors->off[dir].bInterfaceNumber = streaming[dir];
		descriptors->on[dir].bInterfaceNumber = streaming[dir];
		descriptors->off[dir].iInterface = name;
		descriptors->on[dir].iInterface = name;
	}
	descriptors->output[VEXA_SPEAKER].iTerminal = strings[VEXA_TERMINAL_STRING + VEXA_SPEAKER].id;
	descriptors->input[VEXA_MIC].iTerminal = strings[VEXA_TERMINAL_STRING + VEXA_MIC].id;
}

static void copy_address(struct usb_endpoint_descriptor endpoint[VEXA_SPEEDS])
{
	endpoint[VEXA_HIGH_SPEED].bEndpointAddress = endpoint[VEXA_FULL_SPEED].bEndpointAddress;
}

static void list(struct vexa_descriptors *d, enum vexa_speed speed, bool adaptive)
{
	struct usb_descriptor_header **next = d->headers[speed];
	enum vexa_dir dir;

#define ADD(descriptor) (*next++ = (struct usb_descriptor_header *)&(descriptor))
	ADD(d->control);
	ADD(d->header);
	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++) {
		ADD(d->input[dir]);
		ADD(d->features[dir]);
		ADD(d->output[dir]);
	}
	ADD(d->status_ep[speed]);
	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++) {
		ADD(d->off[dir]);
		ADD(d->on[dir]);
		ADD(d->general[dir]);
		ADD(d->format);
		ADD(d->data_ep[dir][speed]);
		ADD(d->iso);
		if (dir == VEXA_SPEAKER && !adaptive)
			ADD(d->feedback_ep[speed]);
	}
#undef ADD
	*next = NULL;
}

void vexa_descriptors_finish(struct vexa_descriptors *descriptors, bool adaptive)
{
	int speed;

	copy_address(descriptors->status_ep);
	copy_address(descriptors->data_ep[VEXA_SPEAKER]);
	copy_address(descriptors->data_ep[VEXA_MIC]);
	copy_address(descriptors->feedback_ep);
	for (speed = 0; speed < VEXA_SPEEDS; speed++) {
		if (!adaptive)
			descriptors->data_ep[VEXA_SPEAKER][speed].bSynchAddress =
				descriptors->feedback_ep[speed].bEndpointAddress;
		list(descriptors, speed, adaptive);
	}
}
