// SPDX-License-Identifier: GPL-2.0-only
/*
 * The simulated board as a whole: brings its parts up in order and takes them down in reverse.
 */
#include <linux/module.h>
#include <linux/platform_device.h>
#include "usb_board.h"

const char *const usb_dir_names[VEXA_DIRS] = { "speaker", "mic" };
const char *const pcm_dir_names[VEXA_DIRS] = { "capture", "playback" };
struct device *board_device;

static bool gadget = true;
module_param(gadget, bool, 0444);
MODULE_PARM_DESC(gadget, "there is a gadget with a host; without one, another driver may take its place");

static bool bound = true;
module_param(bound, bool, 0444);
MODULE_PARM_DESC(bound, "the gadget function starts bound");

static bool plugged = true;
static bool is_up;	/* all parts are; under the lock of the parameters */

/* Without a gadget nobody else moves the cable detector. */
static int set_plugged(const char *value, const struct kernel_param *parameter)
{
	int err;

	if (is_up && gadget)
		return -EBUSY;
	err = param_set_bool(value, parameter);
	if (!err && is_up)
		cable_set(plugged);
	return err;
}

static const struct kernel_param_ops plugged_ops = {
	.set = set_plugged,
	.get = param_get_bool,
};
module_param_cb(plugged, &plugged_ops, &plugged, 0644);
MODULE_PARM_DESC(plugged, "the cable starts plugged and the gadget configured");

static int index = 1;
module_param(index, int, 0444);
MODULE_PARM_DESC(index, "index of the gadget sound card");

static struct platform_device *platform;

static int platform_init(void)
{
	platform = platform_device_register_simple("usb_board", PLATFORM_DEVID_NONE, NULL, 0);
	if (IS_ERR(platform))
		return PTR_ERR(platform);
	board_device = &platform->dev;
	return 0;
}

static void platform_exit(void)
{
	platform_device_unregister(platform);
}

static int function_init(void)
{
	gadget_index = index;
	return gadget_function_init(bound, plugged);
}

/*
 * The board's own card comes before the gadget's, so that it is card 0. What follows it is the gadget and
 * its host.
 */
static const struct part {
	int (*init)(void);
	void (*exit)(void);
} parts[] = {
	{ event_log_init, event_log_exit },
	{ platform_init, platform_exit },
	{ cable_init, cable_exit },
	{ board_card_init, board_card_exit },
#define BOARD_PARTS	4
	{ vexa_android0_init, vexa_android0_exit },
	{ uac_user_init, vexa_control_exit },
	{ host_clock_init, host_clock_exit },
	{ function_init, gadget_card_exit },
	{ host_audio_init, host_audio_exit },
	{ host_command_init, host_command_exit },
	{ counters_init, counters_exit },
};

static size_t part_count(void)
{
	return gadget ? ARRAY_SIZE(parts) : BOARD_PARTS;
}

static void take_down(size_t count)
{
	while (count--)
		parts[count].exit();
}

static int __init usb_board_init(void)
{
	size_t i;
	int err;

	for (i = 0; i < part_count(); i++) {
		err = parts[i].init();
		if (err) {
			take_down(i);
			return err;
		}
	}
	kernel_param_lock(THIS_MODULE);
	if (!gadget)
		cable_set(plugged);
	is_up = true;
	kernel_param_unlock(THIS_MODULE);
	return 0;
}

static void __exit usb_board_exit(void)
{
	kernel_param_lock(THIS_MODULE);
	is_up = false;
	kernel_param_unlock(THIS_MODULE);
	take_down(part_count());
}

module_init(usb_board_init);
module_exit(usb_board_exit);
MODULE_DESCRIPTION("Simulated USB audio gadget, its host and its board");
MODULE_LICENSE("GPL");
