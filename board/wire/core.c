// SPDX-License-Identifier: GPL-2.0-only
/*
 * The module: brings the wire's parts up in order and takes them down in reverse.
 */
#include <linux/module.h>
#include <linux/platform_device.h>
#include "usb_wire.h"

static bool plugged = true;
module_param(plugged, bool, 0444);
MODULE_PARM_DESC(plugged, "the cable starts plugged");

static char *udc = "ff300000.usb";
module_param(udc, charp, 0444);
MODULE_PARM_DESC(udc, "name of the device controller, /sys/class/udc/NAME");

struct wire wire;
static struct platform_device *hcd_device, *udc_device;

static int state_init(void)
{
	spin_lock_init(&wire.lock);
	INIT_LIST_HEAD(&wire.pipes);
	wire.plugged = plugged;
	wire.idle_since = NEVER;
	wire_clock_init();
	wire_schedule_init();
	return 0;
}

/*
 * usbcore names the driver of a host controller's device in its log, without asking whether there
 * is one.
 */
static int no_probe(struct platform_device *device)
{
	return 0;
}

static struct platform_driver hcd_driver = {
	.probe = no_probe,
	.driver = {
		.name = KBUILD_MODNAME,
		.suppress_bind_attrs = true,
	},
};

static int hcd_driver_init(void)
{
	return platform_driver_register(&hcd_driver);
}

static void hcd_driver_exit(void)
{
	platform_driver_unregister(&hcd_driver);
}

static int hcd_device_init(void)
{
	hcd_device = platform_device_register_simple(KBUILD_MODNAME, PLATFORM_DEVID_NONE, NULL, 0);
	return PTR_ERR_OR_ZERO(hcd_device);
}

static void hcd_device_exit(void)
{
	platform_device_unregister(hcd_device);
}

static int udc_device_init(void)
{
	udc_device = platform_device_register_simple(udc, PLATFORM_DEVID_NONE, NULL, 0);
	return PTR_ERR_OR_ZERO(udc_device);
}

static void udc_device_exit(void)
{
	platform_device_unregister(udc_device);
}

static int hcd_init(void)
{
	int err;

	wire.hcd = usb_create_hcd(&wire_hc_driver, &hcd_device->dev, KBUILD_MODNAME);
	if (!wire.hcd)
		return -ENOMEM;
	err = usb_add_hcd(wire.hcd, 0, 0);
	if (err)
		usb_put_hcd(wire.hcd);
	return err;
}

/*
 * Host and gadget have all of theirs back, so that nothing starts the timer any more; one that runs
 * may be telling the root hub of something.
 */
static void hcd_exit(void)
{
	usb_remove_hcd(wire.hcd);
	hrtimer_cancel(&wire.timer);
	usb_put_hcd(wire.hcd);
}

static int udc_init(void)
{
	return wire_udc_add(&udc_device->dev);
}

static void forget_plans(void)
{
	spin_lock_irq(&wire.lock);
	wire.planned_count = 0;
	wire.silent = false;
	wire.unpolled = 0;
	spin_unlock_irq(&wire.lock);
}

static const struct part {
	int (*init)(void);	/* or NULL */
	void (*exit)(void);	/* or NULL */
} parts[] = {
	{ wire_log_init, wire_log_exit },
	{ state_init, NULL },
	{ hcd_driver_init, hcd_driver_exit },
	{ hcd_device_init, hcd_device_exit },
	{ udc_device_init, udc_device_exit },
	{ hcd_init, hcd_exit },
	{ udc_init, wire_udc_remove },
	{ NULL, forget_plans },
	{ wire_counters_init, wire_counters_exit },
	{ wire_command_init, wire_command_exit },
};

static void take_down(size_t count)
{
	while (count--)
		if (parts[count].exit)
			parts[count].exit();
}

static int __init usb_wire_init(void)
{
	size_t i;
	int err;

	for (i = 0; i < ARRAY_SIZE(parts); i++) {
		err = parts[i].init ? parts[i].init() : 0;
		if (err) {
			take_down(i);
			return err;
		}
	}
	return 0;
}

static void __exit usb_wire_exit(void)
{
	take_down(ARRAY_SIZE(parts));
}

module_init(usb_wire_init);
module_exit(usb_wire_exit);
MODULE_DESCRIPTION("USB host and device controller back to back, with isochronous transfers");
MODULE_LICENSE("GPL");
