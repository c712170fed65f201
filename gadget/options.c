// SPDX-License-Identifier: GPL-2.0-only
/*
 * An instance of the function in configfs, functions/vexa.NAME, and its attributes; README.md lists them.
 * There is one card and one control device, so there is one instance, linked once.
 */
#include <linux/configfs.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <sound/core.h>
#include "usb.h"

#define VEXA_SETTLE_MS_MAX	1000

static atomic_t instances;

struct vexa_options *vexa_options_of(struct usb_function_instance *instance)
{
	return container_of(instance, struct vexa_options, instance);
}

static struct vexa_options *of_item(struct config_item *item)
{
	return container_of(to_config_group(item), struct vexa_options, instance.group);
}

/* An attribute's value is read and written under the lock, and fixed while the function is linked. */
static int begin_store(struct vexa_options *options)
{
	mutex_lock(&options->lock);
	if (!options->links)
		return 0;
	mutex_unlock(&options->lock);
	return -EBUSY;
}

#define NUMBER_ATTRIBUTE(name, member, format, low, high)				\
static ssize_t vexa_##name##_show(struct config_item *item, char *page)			\
{											\
	struct vexa_options *options = of_item(item);					\
	ssize_t len;									\
											\
	mutex_lock(&options->lock);							\
	len = sprintf(page, format "\n", options->member);				\
	mutex_unlock(&options->lock);							\
	return len;									\
}											\
											\
static ssize_t vexa_##name##_store(struct config_item *item, const char *page, size_t len)	\
{											\
	struct vexa_options *options = of_item(item);					\
	int number, err = kstrtoint(page, 0, &number);				\
											\
	if (err)									\
		return err;								\
	if (number < (low) || number > (high))						\
		return -ERANGE;								\
	err = begin_store(options);							\
	if (err)									\
		return err;								\
	options->member = number;							\
	mutex_unlock(&options->lock);							\
	return len;									\
}											\
CONFIGFS_ATTR(vexa_, name)

NUMBER_ATTRIBUTE(c_volume_min, volume[VEXA_SPEAKER].min, "%d", S16_MIN + 1, S16_MAX);
NUMBER_ATTRIBUTE(c_volume_max, volume[VEXA_SPEAKER].max, "%d", S16_MIN + 1, S16_MAX);
NUMBER_ATTRIBUTE(c_volume_res, volume[VEXA_SPEAKER].res, "%d", 1, S16_MAX);
NUMBER_ATTRIBUTE(p_volume_min, volume[VEXA_MIC].min, "%d", S16_MIN + 1, S16_MAX);
NUMBER_ATTRIBUTE(p_volume_max, volume[VEXA_MIC].max, "%d", S16_MIN + 1, S16_MAX);
NUMBER_ATTRIBUTE(p_volume_res, volume[VEXA_MIC].res, "%d", 1, S16_MAX);
NUMBER_ATTRIBUTE(c_terminal_type, terminal[VEXA_SPEAKER], "0x%04x", 1, U16_MAX);
NUMBER_ATTRIBUTE(p_terminal_type, terminal[VEXA_MIC], "0x%04x", 1, U16_MAX);
NUMBER_ATTRIBUTE(req_number, requests, "%u", 2, VEXA_REQUESTS_MAX);
NUMBER_ATTRIBUTE(settle_ms, settle_ms, "%u", 0, VEXA_SETTLE_MS_MAX);
NUMBER_ATTRIBUTE(card_index, card_index, "%d", -1, SNDRV_CARDS - 1);

/* Fills @text from a line that is written to an attribute. */
static ssize_t store_text(struct vexa_options *options, char *text, size_t size, const char *page,
			  size_t len)
{
	size_t count = strcspn(page, "\n");
	int err;

	if (count >= size)
		return -EOVERFLOW;
	err = begin_store(options);
	if (err)
		return err;
	memcpy(text, page, count);
	text[count] = '\0';
	mutex_unlock(&options->lock);
	return len;
}

#define TEXT_ATTRIBUTE(name, member)							\
static ssize_t vexa_##name##_show(struct config_item *item, char *page)			\
{											\
	struct vexa_options *options = of_item(item);					\
	ssize_t len;									\
											\
	mutex_lock(&options->lock);							\
	len = sprintf(page, "%s\n", options->member);					\
	mutex_unlock(&options->lock);							\
	return len;									\
}											\
											\
static ssize_t vexa_##name##_store(struct config_item *item, const char *page, size_t len)	\
{											\
	struct vexa_options *options = of_item(item);					\
											\
	return store_text(options, options->member, sizeof(options->member), page, len);	\
}											\
CONFIGFS_ATTR(vexa_, name)

TEXT_ATTRIBUTE(function_name, function_name);
TEXT_ATTRIBUTE(c_ot_name, terminal_name[VEXA_SPEAKER]);
TEXT_ATTRIBUTE(p_it_name, terminal_name[VEXA_MIC]);
TEXT_ATTRIBUTE(card_id, card_id);

static ssize_t vexa_c_sync_show(struct config_item *item, char *page)
{
	struct vexa_options *options = of_item(item);
	ssize_t len;

	mutex_lock(&options->lock);
	len = sprintf(page, "%s\n", options->adaptive ? "adaptive" : "async");
	mutex_unlock(&options->lock);
	return len;
}

static ssize_t vexa_c_sync_store(struct config_item *item, const char *page, size_t len)
{
	struct vexa_options *options = of_item(item);
	bool adaptive = sysfs_streq(page, "adaptive");
	int err;

	if (!adaptive && !sysfs_streq(page, "async"))
		return -EINVAL;
	err = begin_store(options);
	if (err)
		return err;
	options->adaptive = adaptive;
	mutex_unlock(&options->lock);
	return len;
}
CONFIGFS_ATTR(vexa_, c_sync);

static struct configfs_attribute *vexa_attrs[] = {
	&vexa_attr_c_volume_min, &vexa_attr_c_volume_max, &vexa_attr_c_volume_res,
	&vexa_attr_p_volume_min, &vexa_attr_p_volume_max, &vexa_attr_p_volume_res,
	&vexa_attr_c_terminal_type, &vexa_attr_p_terminal_type,
	&vexa_attr_c_sync, &vexa_attr_req_number, &vexa_attr_settle_ms,
	&vexa_attr_function_name, &vexa_attr_c_ot_name, &vexa_attr_p_it_name,
	&vexa_attr_card_index, &vexa_attr_card_id,
	NULL,
};

static void release(struct config_item *item)
{
	usb_put_function_instance(&of_item(item)->instance);
}

static struct configfs_item_operations vexa_item_ops = { .release = release };

static const struct config_item_type vexa_type = {
	.ct_item_ops = &vexa_item_ops,
	.ct_attrs = vexa_attrs,
	.ct_owner = THIS_MODULE,
};

int vexa_options_get(struct vexa_options *options)
{
	int err = begin_store(options);

	if (err)
		return err;
	options->links++;
	mutex_unlock(&options->lock);
	return 0;
}

void vexa_options_put(struct vexa_options *options)
{
	mutex_lock(&options->lock);
	options->links--;
	mutex_unlock(&options->lock);
}

static void free_instance(struct usb_function_instance *instance)
{
	kfree(vexa_options_of(instance));
	atomic_dec(&instances);
}

static void set_defaults(struct vexa_options *options)
{
	static const struct vexa_volume_range range = { .min = -100 * 256, .max = 0, .res = 256 };

	options->volume[VEXA_SPEAKER] = range;
	options->volume[VEXA_MIC] = range;
	options->terminal[VEXA_SPEAKER] = UAC_OUTPUT_TERMINAL_SPEAKER;
	options->terminal[VEXA_MIC] = UAC_INPUT_TERMINAL_MICROPHONE;
	strscpy(options->function_name, "Audio", sizeof(options->function_name));
	strscpy(options->terminal_name[VEXA_SPEAKER], "Speaker", VEXA_NAME_LEN);
	strscpy(options->terminal_name[VEXA_MIC], "Microphone", VEXA_NAME_LEN);
	options->requests = 2;
	options->settle_ms = 10;
	options->card_index = -1;
	strscpy(options->card_id, "Gadget", sizeof(options->card_id));
}

struct usb_function_instance *vexa_options_alloc(void)
{
	struct vexa_options *options;

	if (atomic_cmpxchg(&instances, 0, 1)) {
		pr_err("usb_f_vexa: there is an instance already, and one card and control device only\n");
		return ERR_PTR(-EBUSY);
	}
	options = kzalloc(sizeof(*options), GFP_KERNEL);
	if (!options) {
		atomic_dec(&instances);
		return ERR_PTR(-ENOMEM);
	}
	mutex_init(&options->lock);
	set_defaults(options);
	options->instance.free_func_inst = free_instance;
	config_group_init_type_name(&options->instance.group, "", &vexa_type);
	return &options->instance;
}
