// SPDX-License-Identifier: GPL-2.0-only
/*
 * /dev/usb_wire: one command per write; see README.md for what each does.
 */
#include <linux/fs.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/uaccess.h>
#include "usb_wire.h"

#define COMMAND_LEN	120
#define WORDS_MAX	8

struct command {
	const char *name;
	int words;	/* with the name, without options */
	int (*parse)(char **words, struct wire_action *action);
};

static int parse_plug(char **words, struct wire_action *action)
{
	action->kind = DO_PLUG;
	return 0;
}

static int parse_unplug(char **words, struct wire_action *action)
{
	action->kind = DO_UNPLUG;
	return 0;
}

static int parse_reset(char **words, struct wire_action *action)
{
	action->kind = DO_RESET;
	return 0;
}

static int parse_suspend(char **words, struct wire_action *action)
{
	action->kind = DO_SUSPEND;
	return 0;
}

static int parse_resume(char **words, struct wire_action *action)
{
	action->kind = DO_RESUME;
	return 0;
}

static int parse_speed(char **words, struct wire_action *action)
{
	static const char *const speeds[] = { "high", "full" };

	action->kind = DO_SPEED;
	action->value = match_string(speeds, ARRAY_SIZE(speeds), words[1]);
	return min(action->value, 0);
}

static int parse_ppb(char **words, struct wire_action *action)
{
	action->kind = DO_PPB;
	if (kstrtoint(words[1], 0, &action->value) || abs(action->value) > PPB_LIMIT)
		return -EINVAL;
	return 0;
}

static int parse_address(const char *word, struct wire_action *action, unsigned int last)
{
	int address = wire_address_parse(word);

	if (address < 0 || address > last)
		return -EINVAL;
	action->address = address;
	return 0;
}

static int parse_poll(char **words, struct wire_action *action)
{
	action->kind = DO_POLL;
	if (kstrtoint(words[2], 0, &action->value) || action->value != (bool)action->value)
		return -EINVAL;
	return parse_address(words[1], action, ALL_ADDRESSES);
}

static int parse_fault(char **words, struct wire_action *action)
{
	action->kind = DO_FAULT;
	action->times = 1;
	action->value = wire_fault_parse(words[2]);
	return action->value < 0 ? -EINVAL : parse_address(words[1], action, ADDRESSES - 1);
}

static const struct command commands[] = {
	{ "plug", 1, parse_plug },
	{ "unplug", 1, parse_unplug },
	{ "reset", 1, parse_reset },
	{ "suspend", 1, parse_suspend },
	{ "resume", 1, parse_resume },
	{ "speed", 2, parse_speed },
	{ "ppb", 2, parse_ppb },
	{ "poll", 3, parse_poll },
	{ "fault", 3, parse_fault },
};

static int parse_option(char *word, struct wire_action *action)
{
	if (strstarts(word, "at="))
		return kstrtou64(word + 3, 0, &action->at);
	if (strstarts(word, "times=") && action->kind == DO_FAULT)
		return kstrtouint(word + 6, 0, &action->times);
	return -EINVAL;
}

static const struct command *find_command(const char *name)
{
	int i;

	for (i = 0; i < ARRAY_SIZE(commands); i++)
		if (!strcmp(name, commands[i].name))
			return &commands[i];
	return NULL;
}

static int parse(int count, char **words, struct wire_action *action)
{
	const struct command *command = find_command(words[0]);
	int i, err;

	if (!command || count < command->words)
		return -EINVAL;
	err = command->parse(words, action);
	for (i = command->words; !err && i < count; i++)
		err = parse_option(words[i], action);
	return err;
}

static int split(char *text, char **words)
{
	char *word;
	int count = 0;

	while ((word = strsep(&text, " \t"))) {
		if (!*word)
			continue;
		if (count == WORDS_MAX)
			return -E2BIG;
		words[count++] = word;
	}
	return count ? count : -EINVAL;
}

/* Nothing is planned any more, nothing is wrong, the host polls and its clock is right. */
static void clear(void)
{
	const struct wire_action actions[] = {
		{ .kind = DO_RESUME },
		{ .kind = DO_POLL, .address = ALL_ADDRESSES, .value = 1 },
		{ .kind = DO_PPB },
	};
	int i;

	wire.planned_count = 0;
	memset(wire.fault, 0, sizeof(wire.fault));
	for (i = 0; i < ARRAY_SIZE(actions); i++)
		wire_act(&actions[i], wire_uframe());
}

static int run(char *text)
{
	struct wire_action action = { .at = NEVER };
	char *words[WORDS_MAX];
	bool clears;
	int count, err = 0;

	count = split(text, words);
	if (count < 0)
		return count;
	clears = count == 1 && !strcmp(words[0], "clear");
	if (!clears)
		err = parse(count, words, &action);
	if (err)
		return err;
	spin_lock_irq(&wire.lock);
	if (clears)
		clear();
	else if (action.at == NEVER)
		wire_act(&action, wire_uframe());
	else if (action.at <= wire_uframe())
		err = -ETIME;
	else
		err = wire_plan(&action);
	spin_unlock_irq(&wire.lock);
	wire_tell_hub();
	return err;
}

static ssize_t command_write(struct file *file, const char __user *buffer, size_t count,
			     loff_t *offset)
{
	char text[COMMAND_LEN + 1];
	int err;

	if (count > COMMAND_LEN)
		return -E2BIG;
	if (copy_from_user(text, buffer, count))
		return -EFAULT;
	text[count] = 0;
	err = run(strim(text));
	return err ? err : count;
}

static const struct file_operations command_fops = {
	.owner = THIS_MODULE,
	.open = stream_open,
	.write = command_write,
};

static struct miscdevice command_device = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = KBUILD_MODNAME,
	.fops = &command_fops,
};

int wire_command_init(void)
{
	return misc_register(&command_device);
}

void wire_command_exit(void)
{
	misc_deregister(&command_device);
}
