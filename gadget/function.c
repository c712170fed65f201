// SPDX-License-Identifier: GPL-2.0-only
/*
 * The USB function as libcomposite sees it, and the module.
 *
 * What lives how long: the control device and the queue of records as long as the module; the card from
 * bind to unbind, and beyond that until its last file is closed; endpoints and requests from bind to unbind;
 * the function as long as it is linked into a configuration. An open file, of the card or of the control
 * device, and an instance in configfs each hold the module.
 */
#include <linux/module.h>
#include <linux/slab.h>
#include "usb.h"

struct vexa {
	struct usb_function function;
	struct vexa_options *options;
	struct vexa_descriptors descriptors;
	struct usb_string strings[VEXA_STRINGS + 1];
	struct usb_gadget_strings table;
	struct usb_gadget_strings *tables[2];
	struct vexa_control control;
	struct vexa_status status;
	struct vexa_streaming streaming[VEXA_DIRS];
	u8 interfaces[VEXA_DIRS];
};

static struct vexa *vexa_of(struct usb_function *function)
{
	return container_of(function, struct vexa, function);
}

static struct vexa_streaming *streaming_of(struct vexa *vexa, unsigned int interface)
{
	enum vexa_dir dir;

	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++)
		if (interface == vexa->interfaces[dir])
			return &vexa->streaming[dir];
	return NULL;
}

static int vexa_set_alt(struct usb_function *function, unsigned int interface, unsigned int alt)
{
	struct vexa *vexa = vexa_of(function);
	struct vexa_streaming *streaming = streaming_of(vexa, interface);

	if (streaming)
		return vexa_streaming_set_alt(streaming, function, alt);
	if (interface != vexa->control.interface || alt)
		return -EINVAL;
	return vexa_status_enable(&vexa->status, function);
}

static int vexa_get_alt(struct usb_function *function, unsigned int interface)
{
	struct vexa_streaming *streaming = streaming_of(vexa_of(function), interface);

	return streaming ? streaming->alt : 0;
}

static void vexa_disable(struct usb_function *function)
{
	struct vexa *vexa = vexa_of(function);

	vexa_streaming_set_alt(&vexa->streaming[VEXA_SPEAKER], function, 0);
	vexa_streaming_set_alt(&vexa->streaming[VEXA_MIC], function, 0);
	vexa_status_disable(&vexa->status);
}

/* No packet passes on a suspended bus: that is an end of the streams to the daemon. */
static void vexa_suspend(struct usb_function *function)
{
	struct vexa *vexa = vexa_of(function);

	vexa_streaming_suspend(&vexa->streaming[VEXA_SPEAKER], true);
	vexa_streaming_suspend(&vexa->streaming[VEXA_MIC], true);
}

static void vexa_resume(struct usb_function *function)
{
	struct vexa *vexa = vexa_of(function);

	vexa_streaming_suspend(&vexa->streaming[VEXA_SPEAKER], false);
	vexa_streaming_suspend(&vexa->streaming[VEXA_MIC], false);
}

static int vexa_setup(struct usb_function *function, const struct usb_ctrlrequest *setup)
{
	return vexa_request(&vexa_of(function)->control, function->config->cdev, setup);
}

static int check_options(struct usb_gadget *gadget, const struct vexa_options *options)
{
	enum vexa_dir dir;

	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++)
		if (options->volume[dir].min >= options->volume[dir].max) {
			dev_err(&gadget->dev, "vexa: %s is not below the maximum\n",
				dir == VEXA_SPEAKER ? "c_volume_min" : "p_volume_min");
			return -EINVAL;
		}
	return 0;
}

static int attach_strings(struct vexa *vexa, struct usb_composite_dev *cdev, struct usb_string **strings)
{
	struct vexa_options *options = vexa->options;

	vexa->strings[VEXA_FUNCTION_STRING].s = options->function_name;
	vexa->strings[VEXA_TERMINAL_STRING + VEXA_SPEAKER].s = options->terminal_name[VEXA_SPEAKER];
	vexa->strings[VEXA_TERMINAL_STRING + VEXA_MIC].s = options->terminal_name[VEXA_MIC];
	vexa->table.language = 0x0409;	/* en-us */
	vexa->table.strings = vexa->strings;
	vexa->tables[0] = &vexa->table;
	*strings = usb_gstrings_attach(cdev, vexa->tables, VEXA_STRINGS);
	return PTR_ERR_OR_ZERO(*strings);
}

static int number_interfaces(struct vexa *vexa, struct usb_configuration *config)
{
	struct usb_function *function = &vexa->function;
	struct usb_string *strings;
	int err = attach_strings(vexa, config->cdev, &strings);
	int numbers[1 + VEXA_DIRS];
	int i;

	if (err)
		return err;
	for (i = 0; i < ARRAY_SIZE(numbers); i++) {
		numbers[i] = usb_interface_id(config, function);
		if (numbers[i] < 0)
			return numbers[i];
	}
	vexa->control.interface = numbers[0];
	vexa->interfaces[VEXA_SPEAKER] = numbers[1];
	vexa->interfaces[VEXA_MIC] = numbers[2];
	vexa_descriptors_number(&vexa->descriptors, numbers[0], vexa->interfaces, strings);
	return 0;
}

/* Which endpoints the controller has for the function, and the requests on them. */
static int choose_endpoints(struct vexa *vexa, struct usb_gadget *gadget)
{
	struct vexa_descriptors *descriptors = &vexa->descriptors;
	bool adaptive = vexa->options->adaptive;
	struct usb_ep *status, *speaker, *mic, *feedback = NULL;
	int err;

	status = usb_ep_autoconfig(gadget, &descriptors->status_ep[VEXA_FULL_SPEED]);
	speaker = usb_ep_autoconfig(gadget, &descriptors->data_ep[VEXA_SPEAKER][VEXA_FULL_SPEED]);
	mic = usb_ep_autoconfig(gadget, &descriptors->data_ep[VEXA_MIC][VEXA_FULL_SPEED]);
	if (!adaptive)
		feedback = usb_ep_autoconfig(gadget, &descriptors->feedback_ep[VEXA_FULL_SPEED]);
	if (!status || !speaker || !mic || !(adaptive || feedback)) {
		dev_err(&gadget->dev, "vexa: the controller lacks endpoints\n");
		return -ENODEV;
	}
	vexa_descriptors_finish(descriptors, adaptive);
	err = vexa_streaming_bind(&vexa->streaming[VEXA_SPEAKER], gadget, vexa->options, speaker,
				  feedback);
	if (err)
		return err;
	err = vexa_streaming_bind(&vexa->streaming[VEXA_MIC], gadget, vexa->options, mic, NULL);
	if (!err)
		err = vexa_status_bind(&vexa->status, status);
	if (!err)
		return 0;
	vexa_streaming_unbind(&vexa->streaming[VEXA_MIC]);
	vexa_streaming_unbind(&vexa->streaming[VEXA_SPEAKER]);
	return err;
}

static void free_endpoints(struct vexa *vexa)
{
	vexa_status_unbind(&vexa->status);
	vexa_streaming_unbind(&vexa->streaming[VEXA_MIC]);
	vexa_streaming_unbind(&vexa->streaming[VEXA_SPEAKER]);
}

static int add_card(struct vexa *vexa, struct usb_gadget *gadget)
{
	const struct vexa_card_name name = {
		.index = vexa->options->card_index,
		.id = vexa->options->card_id,
		.where = dev_name(gadget->dev.parent),
	};

	return vexa_card_add(&gadget->dev, &name, &vexa_pcm_ops);
}

/* The card first: whoever reads the record finds it. */
static int vexa_bind(struct usb_configuration *config, struct usb_function *function)
{
	struct usb_gadget *gadget = config->cdev->gadget;
	struct vexa *vexa = vexa_of(function);
	struct vexa_descriptors *descriptors = &vexa->descriptors;
	int err = check_options(gadget, vexa->options);

	if (err)
		return err;
	memcpy(vexa->control.range, vexa->options->volume, sizeof(vexa->control.range));
	vexa_descriptors_init(descriptors, vexa->options);
	err = number_interfaces(vexa, config);
	if (!err)
		err = choose_endpoints(vexa, gadget);
	if (err)
		return err;
	err = usb_assign_descriptors(function, descriptors->headers[VEXA_FULL_SPEED],
				     descriptors->headers[VEXA_HIGH_SPEED], NULL, NULL);
	if (err)
		goto no_descriptors;
	err = add_card(vexa, gadget);
	if (err)
		goto no_card;
	vexa_link_bind(config->cdev);
	vexa_set_bound(true);
	return 0;

no_card:
	usb_free_all_descriptors(function);
no_descriptors:
	free_endpoints(vexa);
	return err;
}

static void vexa_unbind(struct usb_configuration *config, struct usb_function *function)
{
	struct vexa *vexa = vexa_of(function);

	vexa_set_bound(false);
	vexa_link_unbind();
	vexa_card_remove();
	usb_free_all_descriptors(function);
	free_endpoints(vexa);
}

static void vexa_free(struct usb_function *function)
{
	struct vexa *vexa = vexa_of(function);

	vexa_options_put(vexa->options);
	kfree(vexa);
}

static struct usb_function *vexa_alloc(struct usb_function_instance *instance)
{
	struct vexa_options *options = vexa_options_of(instance);
	struct vexa *vexa;
	int err = vexa_options_get(options);

	if (err)
		return ERR_PTR(err);
	vexa = kzalloc(sizeof(*vexa), GFP_KERNEL);
	if (!vexa) {
		vexa_options_put(options);
		return ERR_PTR(-ENOMEM);
	}
	vexa->options = options;
	vexa_streaming_init(&vexa->streaming[VEXA_SPEAKER], VEXA_SPEAKER);
	vexa_streaming_init(&vexa->streaming[VEXA_MIC], VEXA_MIC);
	vexa->function.name = "vexa";
	vexa->function.bind = vexa_bind;
	vexa->function.unbind = vexa_unbind;
	vexa->function.set_alt = vexa_set_alt;
	vexa->function.get_alt = vexa_get_alt;
	vexa->function.disable = vexa_disable;
	vexa->function.suspend = vexa_suspend;
	vexa->function.resume = vexa_resume;
	vexa->function.setup = vexa_setup;
	vexa->function.free_func = vexa_free;
	return &vexa->function;
}

DECLARE_USB_FUNCTION(vexa, vexa_options_alloc, vexa_alloc);

static int __init vexa_init(void)
{
	static const struct vexa_watcher watcher = { .set = vexa_status_speaker_set };
	int err;

	vexa_watch(&watcher);
	err = vexa_control_init(&vexa_control_fops);
	if (err)
		return err;
	err = vexa_link_init();
	if (err)
		goto no_link;
	err = usb_function_register(&vexausb_func);
	if (err)
		goto no_function;
	return 0;

no_function:
	vexa_link_exit();
no_link:
	vexa_control_exit();
	return err;
}

static void __exit vexa_exit(void)
{
	usb_function_unregister(&vexausb_func);
	vexa_link_exit();
	vexa_control_exit();
}

module_init(vexa_init);
module_exit(vexa_exit);
MODULE_DESCRIPTION("USB speaker and microphone with a control device");
MODULE_LICENSE("GPL");
