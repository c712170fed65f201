/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What the USB files of the driver show each other: a function of USB Audio Class 1.0 on libcomposite.
 * Results are 0 or a negative errno. What says nothing of its context is called in process context, where
 * libcomposite binds and unbinds the function.
 *
 * Locks, outermost first:
 *   options.lock	options.c: the attributes; process context
 *   status_mutex	status.c: which function is bound, for programs; process context
 *   cdev->lock		libcomposite's; held around some of the callbacks
 *   the locks of a streaming interface, a pipe, the status and the link: any context, none inside another
 *   PCM stream lock and the gadget's own, vexa.h; the device controller's
 * A controller calls us without a lock of its own, and completes no request while it is queued.
 */
#ifndef VEXA_USB_H
#define VEXA_USB_H

#include <linux/hrtimer.h>
#include <linux/spinlock.h>
#include <linux/usb/audio.h>
#include <linux/usb/composite.h>
#include "vexa.h"

/* A packet of the host may hold a frame more than the nominal 48: its clock and ours differ. */
#define VEXA_PACKET_MAX		((VEXA_PACKET_FRAMES + 1) * sizeof(s16))

/* Entities of the audio function: what the host names in wIndex. */
enum vexa_entity {
	VEXA_SPEAKER_INPUT = 1,		/* terminal: from the host */
	VEXA_SPEAKER_FEATURES,		/* unit: volume and mute */
	VEXA_SPEAKER_OUTPUT,		/* terminal: the loudspeaker */
	VEXA_MIC_INPUT,			/* terminal: the microphone */
	VEXA_MIC_FEATURES,
	VEXA_MIC_OUTPUT,		/* terminal: to the host */
};

/* options.c: an instance of the function in configfs */

#define VEXA_NAME_LEN	64	/* of a string the host shows, and its end */

struct vexa_volume_range {
	s16 min, max, res;	/* 1/256 dB */
};

struct vexa_options {
	struct usb_function_instance instance;
	struct mutex lock;		/* what follows */
	unsigned int links;		/* functions made of it; fixed while there is one */
	struct vexa_volume_range volume[VEXA_DIRS];
	u16 terminal[VEXA_DIRS];	/* wTerminalType of loudspeaker and microphone */
	char function_name[VEXA_NAME_LEN];
	char terminal_name[VEXA_DIRS][VEXA_NAME_LEN];
	bool adaptive;			/* the speaker's endpoint follows the host, without feedback */
	u32 requests;			/* packets under way in each direction */
	u32 settle_ms;			/* how long a stream is on before the daemon is told */
	s32 card_index;
	char card_id[16];
};

/* An instance with the default attributes, or an ERR_PTR: -EBUSY, also logged, when there is one already. */
struct usb_function_instance *vexa_options_alloc(void);
struct vexa_options *vexa_options_of(struct usb_function_instance *instance);
/* Fixes the attributes for a function, until put. -EBUSY: a function has them already. */
int vexa_options_get(struct vexa_options *options);
void vexa_options_put(struct vexa_options *options);

/* descriptors.c: what the host is told */

enum vexa_speed { VEXA_FULL_SPEED, VEXA_HIGH_SPEED, VEXA_SPEEDS };

#define VEXA_DESCRIPTORS	24	/* headers of one speed, with the NULL */

DECLARE_UAC_AC_HEADER_DESCRIPTOR(2);
DECLARE_UAC_FEATURE_UNIT_DESCRIPTOR(1);
DECLARE_UAC_FORMAT_TYPE_I_DISCRETE_DESC(1);

struct vexa_descriptors {
	struct usb_interface_descriptor control;
	struct uac1_ac_header_descriptor_2 header;
	struct uac_input_terminal_descriptor input[VEXA_DIRS];
	struct uac_feature_unit_descriptor_1 features[VEXA_DIRS];
	struct uac1_output_terminal_descriptor output[VEXA_DIRS];
	struct usb_interface_descriptor off[VEXA_DIRS], on[VEXA_DIRS];
	struct uac1_as_header_descriptor general[VEXA_DIRS];
	struct uac_format_type_i_discrete_descriptor_1 format;
	struct uac_iso_endpoint_descriptor iso;
	/* The controller's endpoints are chosen by the ones of full speed. */
	struct usb_endpoint_descriptor status_ep[VEXA_SPEEDS];
	struct usb_endpoint_descriptor data_ep[VEXA_DIRS][VEXA_SPEEDS];
	struct usb_endpoint_descriptor feedback_ep[VEXA_SPEEDS];
	struct usb_descriptor_header *headers[VEXA_SPEEDS][VEXA_DESCRIPTORS];
};

/* Strings, in the order of the table that the function attaches. */
enum vexa_string {
	VEXA_FUNCTION_STRING,
	VEXA_TERMINAL_STRING,	/* + direction */
	VEXA_STRINGS = VEXA_TERMINAL_STRING + VEXA_DIRS
};

/* These three in this order. Sets what the attributes say. */
void vexa_descriptors_init(struct vexa_descriptors *descriptors, const struct vexa_options *options);
/* Sets the interfaces' numbers and the strings' ids. */
void vexa_descriptors_number(struct vexa_descriptors *descriptors, u8 control,
			     const u8 streaming[VEXA_DIRS], const struct usb_string *strings);
/* Lists the headers of each speed, after the endpoints of full speed have got their addresses. */
void vexa_descriptors_finish(struct vexa_descriptors *descriptors, bool adaptive);

/* pipe.c: an endpoint and the requests that keep it going */

#define VEXA_REQUESTS_MAX	16

struct vexa_pipe {
	struct usb_ep *ep;
	/* Makes a request ready for its next transfer; NULL: its length stays. */
	void (*fill)(struct vexa_pipe *pipe, struct usb_request *request);
	/* A transfer has ended well or badly; NULL: nobody wants to know. */
	void (*done)(struct vexa_pipe *pipe, struct usb_request *request);
	spinlock_t lock;	/* what follows; held while requests are filled and queued */
	bool open;
	unsigned long idle;	/* bit N: request N is not under way */
	unsigned int count;
	struct usb_request *requests[VEXA_REQUESTS_MAX];
};

/*
 * Makes @count requests of @size bytes. The endpoint is the pipe's until it is freed. -ENOMEM: nothing is
 * left allocated.
 */
int vexa_pipe_alloc(struct vexa_pipe *pipe, struct usb_ep *ep, unsigned int count, size_t size);
void vexa_pipe_free(struct vexa_pipe *pipe);
/*
 * Enables the endpoint and queues the requests; ends those under way and disables it. Any context, one call
 * at a time, without a lock that fill or done take. A request that the controller refuses is logged and
 * waits for another one to end.
 */
int vexa_pipe_open(struct vexa_pipe *pipe, struct usb_function *function);
void vexa_pipe_close(struct vexa_pipe *pipe);

/* streaming.c: an AudioStreaming interface */

struct vexa_streaming {
	enum vexa_dir dir;
	struct vexa_pipe data;
	struct vexa_pipe feedback;	/* of an asynchronous speaker */
	struct usb_gadget *gadget;
	ktime_t settle;
	struct hrtimer timer;
	spinlock_t lock;		/* what follows, and the state's change with it */
	unsigned int alt;
	bool suspended;
	bool told;			/* the daemon knows it to be on */
	ktime_t settled_at;		/* when it will have been on long enough */
};

void vexa_streaming_init(struct vexa_streaming *streaming, enum vexa_dir dir);
/* Makes the requests; @feedback is NULL where there is none. -ENOMEM: nothing is left allocated. */
int vexa_streaming_bind(struct vexa_streaming *streaming, struct usb_gadget *gadget,
			const struct vexa_options *options, struct usb_ep *data,
			struct usb_ep *feedback);
void vexa_streaming_unbind(struct vexa_streaming *streaming);
/*
 * Any context. Tells the daemon of an end at once, of a beginning after options.settle_ms. -EINVAL: there is
 * no such alternate setting.
 */
int vexa_streaming_set_alt(struct vexa_streaming *streaming, struct usb_function *function,
			   unsigned int alt);
/* Any context. A suspended bus ends the stream for the daemon, and a resumed one begins it again. */
void vexa_streaming_suspend(struct vexa_streaming *streaming, bool suspended);

/* status.c: the status interrupt, which tells the host to read the speaker's volume and mute again */

struct vexa_status {
	struct usb_ep *ep;
	struct usb_request *request;
	spinlock_t lock;	/* what follows; held while the request is queued */
	bool enabled;
	bool busy;		/* the request is under way */
	bool again;		/* there was another change meanwhile */
};

/* Makes the request; -ENOMEM. Unbind frees it, when the endpoint is disabled. */
int vexa_status_bind(struct vexa_status *status, struct usb_ep *ep);
void vexa_status_unbind(struct vexa_status *status);
/* Enables and disables the endpoint, as the host selects and leaves the interface; any context. */
int vexa_status_enable(struct vexa_status *status, struct usb_function *function);
void vexa_status_disable(struct vexa_status *status);
/* The speaker's volume or mute was changed by a program; process context. */
void vexa_status_speaker_set(void);

/* requests.c: what the host asks for and sets on the control pipe */

struct vexa_control {
	u8 interface;
	struct vexa_volume_range range[VEXA_DIRS];
	enum vexa_dir dir;	/* of the SET_CUR under way */
	u8 selector;
};

/*
 * Answers a request of the class, or takes the value that it sets; any context. Negative: the request is to
 * be stalled.
 */
int vexa_request(struct vexa_control *control, struct usb_composite_dev *cdev,
		 const struct usb_ctrlrequest *setup);

/*
 * link.c: the android_usb state, by what the bus does; nothing where the kernel has its own. Init and exit at
 * the module's loading and unloading; bind and unbind with the function, whose gadget's callbacks lead through
 * here in between.
 */
#if IS_ENABLED(CONFIG_USB_CONFIGFS_UEVENT)
static inline int vexa_link_init(void) { return 0; }
static inline void vexa_link_exit(void) {}
static inline void vexa_link_bind(struct usb_composite_dev *cdev) {}
static inline void vexa_link_unbind(void) {}
#else
int vexa_link_init(void);
void vexa_link_exit(void);
void vexa_link_bind(struct usb_composite_dev *cdev);
void vexa_link_unbind(void);
#endif

#endif
