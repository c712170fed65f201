// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget's state as Android shows it (class android_usb, device android0, with uevents), and
 * the cable detector of the USB PHY (an extcon device).
 */
#include <linux/device.h>
#include <linux/err.h>
#include <linux/extcon-provider.h>
#include <linux/kobject.h>
#include <linux/module.h>
#include <linux/platform_device.h>
#include <linux/string.h>
#include "usb_board.h"

static char state[GADGET_STATE_LEN] = "DISCONNECTED";
static DEFINE_SPINLOCK(state_lock);
static struct class *android_class;
static struct device *android0;

#define DETECTOR_NAME	"extcon0"

/* The detector's parents give it the path that programs read. */
static struct platform_device *syscon;
static struct platform_device *phy;
static struct extcon_dev *detector;
static const unsigned int cables[] = { EXTCON_USB, EXTCON_NONE };

static ssize_t state_show(struct device *device, struct device_attribute *attribute, char *page)
{
	ssize_t len;

	spin_lock(&state_lock);
	len = sysfs_emit(page, "%s\n", state);
	spin_unlock(&state_lock);
	return len;
}
static DEVICE_ATTR_RO(state);

static struct attribute *android_attrs[] = { &dev_attr_state.attr, NULL };
ATTRIBUTE_GROUPS(android);

int android_usb_state(const char *word, bool quiet)
{
	char variable[GADGET_STATE_LEN + sizeof("USB_STATE=")];
	char *variables[] = { variable, NULL };

	if (strlen(word) >= GADGET_STATE_LEN)
		return -EINVAL;
	spin_lock(&state_lock);
	strscpy(state, word, sizeof(state));
	spin_unlock(&state_lock);
	event_log("usb_state %s", word);
	if (quiet)
		return 0;
	scnprintf(variable, sizeof(variable), "USB_STATE=%s", word);
	return kobject_uevent_env(&android0->kobj, KOBJ_CHANGE, variables);
}

int android_usb_uevent(bool foreign, int argc, char **argv)
{
	static const struct {
		const char *name;
		enum kobject_action action;
	} actions[] = {
		{ "add", KOBJ_ADD }, { "remove", KOBJ_REMOVE }, { "change", KOBJ_CHANGE },
		{ "move", KOBJ_MOVE }, { "online", KOBJ_ONLINE }, { "offline", KOBJ_OFFLINE },
		{ "bind", KOBJ_BIND }, { "unbind", KOBJ_UNBIND },
	};
	char *variables[COMMAND_ARGS] = {};
	struct device *sender = foreign ? &syscon->dev : android0;
	int i;

	memcpy(variables, argv + 1, (argc - 1) * sizeof(*argv));
	for (i = 0; i < ARRAY_SIZE(actions); i++)
		if (!strcmp(argv[0], actions[i].name))
			return kobject_uevent_env(&sender->kobj, actions[i].action, variables);
	return -EINVAL;
}

void android_usb_cable(bool plugged)
{
	event_log("cable %d", plugged);
	extcon_set_state_sync(detector, EXTCON_USB, plugged);
}

bool android_usb_plugged(void)
{
	return extcon_get_state(detector, EXTCON_USB) > 0;
}

static int android0_init(void)
{
	android_class = class_create(THIS_MODULE, "android_usb");
	if (IS_ERR(android_class))
		return PTR_ERR(android_class);
	android0 = device_create_with_groups(android_class, NULL, MKDEV(0, 0), NULL, android_groups,
					     "android0");
	if (!IS_ERR(android0))
		return 0;
	class_destroy(android_class);
	return PTR_ERR(android0);
}

static void android0_exit(void)
{
	device_unregister(android0);
	class_destroy(android_class);
}

static int parents_init(void)
{
	struct platform_device_info info = {
		.name = "ff2c0000.syscon:usb2-phy@100",
		.id = PLATFORM_DEVID_NONE,
	};

	syscon = platform_device_register_simple("ff2c0000.syscon", PLATFORM_DEVID_NONE, NULL, 0);
	if (IS_ERR(syscon))
		return PTR_ERR(syscon);
	info.parent = &syscon->dev;
	phy = platform_device_register_full(&info);
	if (!IS_ERR(phy))
		return 0;
	platform_device_unregister(syscon);
	return PTR_ERR(phy);
}

static void parents_exit(void)
{
	platform_device_unregister(phy);
	platform_device_unregister(syscon);
}

/* Detectors are numbered without end; programs look for number 0, also after a reload. */
static int number_detector(void)
{
	struct device *device = device_find_any_child(&phy->dev);
	int err = 0;

	if (strcmp(dev_name(device), DETECTOR_NAME))
		err = device_rename(device, DETECTOR_NAME);
	put_device(device);
	return err;
}

/*
 * Taken down by hand: no driver is bound to the parent whose going would do it, and the detector
 * holds on to its parent.
 */
static void detector_exit(void)
{
	devm_extcon_dev_unregister(&phy->dev, detector);
	devm_extcon_dev_free(&phy->dev, detector);
}

static int detector_init(void)
{
	int err;

	detector = devm_extcon_dev_allocate(&phy->dev, cables);
	if (IS_ERR(detector))
		return PTR_ERR(detector);
	err = devm_extcon_dev_register(&phy->dev, detector);
	if (err) {
		devm_extcon_dev_free(&phy->dev, detector);
		return err;
	}
	err = number_detector();
	if (err)
		detector_exit();
	return err;
}

int android_usb_init(void)
{
	int err = android0_init();

	if (err)
		return err;
	err = parents_init();
	if (err)
		goto no_parents;
	err = detector_init();
	if (err)
		goto no_detector;
	return 0;

no_detector:
	parents_exit();
no_parents:
	android0_exit();
	return err;
}

void android_usb_exit(void)
{
	detector_exit();
	parents_exit();
	android0_exit();
}
