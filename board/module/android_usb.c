// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget's state, gadget/android0.c, with a log, and uevents of any kind.
 */
#include <linux/device.h>
#include <linux/kobject.h>
#include <linux/string.h>
#include "usb_board.h"

int android_usb_state(const char *word, bool quiet)
{
	if (strlen(word) >= VEXA_STATE_LEN)
		return -EINVAL;
	event_log("usb_state %s", word);
	return vexa_android0_tell(word, quiet);
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
	struct device *sender = foreign ? cable_parent() : vexa_android0();
	int i;

	memcpy(variables, argv + 1, (argc - 1) * sizeof(*argv));
	for (i = 0; i < ARRAY_SIZE(actions); i++)
		if (!strcmp(argv[0], actions[i].name))
			return kobject_uevent_env(&sender->kobj, actions[i].action, variables);
	return -EINVAL;
}
