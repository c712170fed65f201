// SPDX-License-Identifier: GPL-2.0-only
/*
 * The cable detector of the USB PHY, an extcon device.
 */
#include <linux/device.h>
#include <linux/err.h>
#include <linux/extcon-provider.h>
#include <linux/platform_device.h>
#include <linux/string.h>
#include "usb_board.h"

#define DETECTOR_NAME	"extcon0"

/* The detector's parents give it the path that programs read. */
static struct platform_device *syscon;
static struct platform_device *phy;
static struct extcon_dev *detector;
static const unsigned int cables[] = { EXTCON_USB, EXTCON_NONE };

void cable_set(bool plugged)
{
	event_log("cable %d", plugged);
	extcon_set_state_sync(detector, EXTCON_USB, plugged);
}

bool cable_plugged(void)
{
	return extcon_get_state(detector, EXTCON_USB) > 0;
}

struct device *cable_parent(void)
{
	return &syscon->dev;
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

int cable_init(void)
{
	int err = parents_init();

	if (err)
		return err;
	err = detector_init();
	if (err)
		parents_exit();
	return err;
}

void cable_exit(void)
{
	detector_exit();
	parents_exit();
}
