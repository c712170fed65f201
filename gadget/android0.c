// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget's state as Android's kernels show it: class android_usb, device android0, with uevents.
 */
#include <linux/device.h>
#include <linux/err.h>
#include <linux/kobject.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include "vexa.h"

static char word[VEXA_STATE_LEN] = "DISCONNECTED";
static DEFINE_SPINLOCK(word_lock);
static struct device *android0;

static ssize_t state_show(struct device *device, struct device_attribute *attribute, char *page)
{
	ssize_t len;

	spin_lock(&word_lock);
	len = sysfs_emit(page, "%s\n", word);
	spin_unlock(&word_lock);
	return len;
}
static DEVICE_ATTR_RO(state);

static struct attribute *android_attrs[] = { &dev_attr_state.attr, NULL };
ATTRIBUTE_GROUPS(android);

static struct class android_class = { .name = "android_usb" };

int vexa_android0_tell(const char *new_word, bool quiet)
{
	char variable[VEXA_STATE_LEN + sizeof("USB_STATE=")];
	char *variables[2] = { variable, NULL };

	if (strlen(new_word) >= VEXA_STATE_LEN)
		return -EINVAL;
	spin_lock(&word_lock);
	strscpy(word, new_word, sizeof(word));
	spin_unlock(&word_lock);
	if (quiet)
		return 0;
	scnprintf(variable, sizeof(variable), "USB_STATE=%s", new_word);
	return kobject_uevent_env(&android0->kobj, KOBJ_CHANGE, variables);
}

struct device *vexa_android0(void)
{
	return android0;
}

int vexa_android0_init(void)
{
	int err = class_register(&android_class);

	if (err)
		return err;
	android0 = device_create_with_groups(&android_class, NULL, MKDEV(0, 0), NULL, android_groups,
					     "android0");
	if (!IS_ERR(android0))
		return 0;
	class_unregister(&android_class);
	return PTR_ERR(android0);
}

void vexa_android0_exit(void)
{
	device_unregister(android0);
	class_unregister(&android_class);
}
