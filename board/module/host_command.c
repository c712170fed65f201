// SPDX-License-Identifier: GPL-2.0-only
/*
 * The commands written to /dev/usb_host, one per write; see README.md for what each does.
 */
#include <linux/fs.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/uaccess.h>
#include "usb_board.h"

#define COMMAND_LEN	4000	/* a uevent's worth of text */
#define PPB_LIMIT	100000000

struct command {
	const char *name;
	int min_args, max_args;	/* with the name */
	int (*run)(int argc, char **argv);
};

static int parse_dir(const char *text, enum vexa_dir *dir)
{
	int found = match_string(usb_dir_names, VEXA_DIRS, text);

	*dir = found;
	return min(found, 0);
}

static int parse_dir_number(char **argv, enum vexa_dir *dir, int *number)
{
	int err = parse_dir(argv[1], dir);

	return err ? err : kstrtoint(argv[2], 0, number);
}

static int parse_index(int argc, char **argv, int position, int *index)
{
	*index = gadget_index;
	return argc > position ? kstrtoint(argv[position], 0, index) : 0;
}

static int run_bind(int argc, char **argv)
{
	int index;
	int err = parse_index(argc, argv, 1, &index);

	return err ? err : gadget_bind(index);
}

static int run_unbind(int argc, char **argv)
{
	gadget_unbind();
	return 0;
}

static int run_card(int argc, char **argv)
{
	int index;
	int err = parse_index(argc, argv, 2, &index);

	if (err)
		return err;
	if (!strcmp(argv[1], "add"))
		return gadget_card_add(index);
	if (!strcmp(argv[1], "remove") && argc == 2)
		return gadget_card_remove();
	return -EINVAL;
}

static int run_stream(int argc, char **argv)
{
	enum vexa_dir dir;
	bool on = !strcmp(argv[1], "on");
	int err = parse_dir(argv[0], &dir);

	if (err || (!on && strcmp(argv[1], "off")))
		return -EINVAL;
	gadget_stream(dir, on);
	return 0;
}

static int run_volume(int argc, char **argv)
{
	enum vexa_dir dir;
	int volume;

	if (parse_dir_number(argv, &dir, &volume) || volume != (s16)volume)
		return -EINVAL;
	return vexa_set_volume(dir, volume);
}

static int run_mute(int argc, char **argv)
{
	enum vexa_dir dir;
	int mute;

	if (parse_dir_number(argv, &dir, &mute) || mute != (bool)mute)
		return -EINVAL;
	return vexa_set_mute(dir, mute);
}

static int run_record(int argc, char **argv)
{
	unsigned int type, data, count = 1;

	if (kstrtouint(argv[1], 0, &type) || kstrtouint(argv[2], 0, &data))
		return -EINVAL;
	if (argc > 3 && kstrtouint(argv[3], 0, &count))
		return -EINVAL;
	return vexa_record(type, data, count);
}

static int run_ppb(int argc, char **argv)
{
	int ppb;

	if (kstrtoint(argv[1], 0, &ppb) || abs(ppb) > PPB_LIMIT)
		return -EINVAL;
	host_clock_offset(ppb);
	return 0;
}

static int run_flush(int argc, char **argv)
{
	enum vexa_dir dir;
	int err = parse_dir(argv[1], &dir);

	if (!err)
		host_stream_flush(dir);
	return err;
}

static int run_stall(int argc, char **argv)
{
	enum vexa_dir dir;
	int stalled;

	if (parse_dir_number(argv, &dir, &stalled) || stalled != (bool)stalled)
		return -EINVAL;
	host_stream_stall(dir, stalled);
	return 0;
}

static int run_injury(int argc, char **argv)
{
	enum injury injury = !strcmp(argv[0], "xrun") ? INJURY_XRUN : INJURY_SUSPEND;
	enum vexa_dir dir;
	u64 at;

	if (parse_dir(argv[1], &dir))
		return -EINVAL;
	if (argc == 2)
		return host_stream_injure(dir, injury);
	if (!strstarts(argv[2], "at=") || kstrtou64(argv[2] + 3, 0, &at))
		return -EINVAL;
	host_stream_injure_at(dir, injury, at);
	return 0;
}

static int run_usb_state(int argc, char **argv)
{
	if (argc == 3 && strcmp(argv[2], "quiet"))
		return -EINVAL;
	return android_usb_state(argv[1], argc == 3);
}

static int run_uevent(int argc, char **argv)
{
	return android_usb_uevent(!strcmp(argv[0], "foreign"), argc - 1, argv + 1);
}

static int run_cable(int argc, char **argv)
{
	bool plugged;

	if (kstrtobool(argv[1], &plugged))
		return -EINVAL;
	cable_set(plugged);
	return 0;
}

static int run_unplug(int argc, char **argv)
{
	gadget_unplug();
	return 0;
}

static int run_plug(int argc, char **argv)
{
	gadget_plug();
	return 0;
}

static int run_reenumerate(int argc, char **argv)
{
	return gadget_reenumerate();
}

/* The line in the log is all there is to it. */
static int run_log(int argc, char **argv)
{
	return 0;
}

static const struct command commands[] = {
	{ "bind", 1, 2, run_bind },
	{ "unbind", 1, 1, run_unbind },
	{ "card", 2, 3, run_card },
	{ "speaker", 2, 2, run_stream },
	{ "mic", 2, 2, run_stream },
	{ "volume", 3, 3, run_volume },
	{ "mute", 3, 3, run_mute },
	{ "record", 3, 4, run_record },
	{ "ppb", 2, 2, run_ppb },
	{ "flush", 2, 2, run_flush },
	{ "stall", 3, 3, run_stall },
	{ "xrun", 2, 3, run_injury },
	{ "suspend", 2, 3, run_injury },
	{ "usb_state", 2, 3, run_usb_state },
	{ "uevent", 2, COMMAND_ARGS, run_uevent },
	{ "foreign", 2, COMMAND_ARGS, run_uevent },
	{ "cable", 2, 2, run_cable },
	{ "unplug", 1, 1, run_unplug },
	{ "plug", 1, 1, run_plug },
	{ "reenumerate", 1, 1, run_reenumerate },
	{ "fault", 2, 5, fault_command },
	{ "log", 1, COMMAND_ARGS, run_log },
};

static int split(char *text, char **argv)
{
	char *word;
	int argc = 0;

	while ((word = strsep(&text, " \t"))) {
		if (!*word)
			continue;
		if (argc == COMMAND_ARGS)
			return -E2BIG;
		argv[argc++] = word;
	}
	return argc;
}

static int run_command(char *text)
{
	char *argv[COMMAND_ARGS];
	int argc, i;

	event_log("host %s", text);
	argc = split(text, argv);
	if (argc < 1)
		return argc < 0 ? argc : -EINVAL;
	for (i = 0; i < ARRAY_SIZE(commands); i++) {
		const struct command *command = &commands[i];

		if (strcmp(argv[0], command->name))
			continue;
		if (argc < command->min_args || argc > command->max_args)
			return -EINVAL;
		return command->run(argc, argv);
	}
	return -EINVAL;
}

static ssize_t host_write(struct file *file, const char __user *buffer, size_t count,
			  loff_t *offset)
{
	char *text;
	int err;

	if (count > COMMAND_LEN)
		return -E2BIG;
	text = memdup_user_nul(buffer, count);
	if (IS_ERR(text))
		return PTR_ERR(text);
	mutex_lock(&gadget_mutex);
	err = run_command(strim(text));
	mutex_unlock(&gadget_mutex);
	kfree(text);
	return err ? err : count;
}

static const struct file_operations host_fops = {
	.owner = THIS_MODULE,
	.open = stream_open,
	.write = host_write,
	.llseek = no_llseek,
};

static struct miscdevice host_device = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = "usb_host",
	.fops = &host_fops,
};

int host_command_init(void)
{
	return misc_register(&host_device);
}

void host_command_exit(void)
{
	misc_deregister(&host_device);
}
