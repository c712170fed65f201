// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget control device, gadget/control_device.c, with a log of what passes through it, and faults.
 */
#include <linux/fs.h>
#include <linux/module.h>
#include <linux/poll.h>
#include <linux/seq_file.h>
#include <linux/uaccess.h>
#include "usb_board.h"

static ssize_t deliver(const struct vexa_record *record, char __user *buffer)
{
	int size = sizeof(*record);
	int wanted;

	if (fault_take(FAULT_READ_SHORT, &wanted))
		size = min(size, wanted);
	if (copy_to_user(buffer, record, size))
		return -EFAULT;
	event_log("uac read %d type=%u data=0x%08x", size, record->type, record->data);
	return size;
}

static ssize_t spoilt_read(int error)
{
	event_log("uac read %d", -error);
	return -error;
}

/* A fault is looked at once per call, and again when it is armed while the call waits. */
static ssize_t uac_read(struct file *file, char __user *buffer, size_t count, loff_t *offset)
{
	unsigned int armings = fault_armings(FAULT_READ);
	struct vexa_record record;
	int error;

	if (count < sizeof(record))
		return -EINVAL;
	if (fault_take(FAULT_READ, &error))
		return spoilt_read(error);
	while (!vexa_take_record(&record)) {
		if (file->f_flags & O_NONBLOCK)
			return -EAGAIN;
		if (wait_event_interruptible(vexa_records_wait, vexa_has_record() ||
					     fault_armings(FAULT_READ) != armings))
			return -ERESTARTSYS;
		if (fault_armings(FAULT_READ) == armings)
			continue;
		armings = fault_armings(FAULT_READ);
		if (fault_take(FAULT_READ, &error))
			return spoilt_read(error);
	}
	return deliver(&record, buffer);
}

static long init_sync(void)
{
	int err = fault_result(FAULT_INIT_SYNC);

	event_log("uac INIT_SYNC %d", err);
	if (!err)
		vexa_init_sync();
	return err;
}

static long set_volume(const void __user *argument)
{
	int err = fault_result(FAULT_SET_VOLUME);
	s16 volume = 0;

	if (!err && copy_from_user(&volume, argument, sizeof(volume)))
		err = -EFAULT;
	if (!err)
		vexa_program_volume(volume);
	event_log("uac SET_SPK_VOLUME %d %d", volume, err);
	return err;
}

static long set_mute(const void __user *argument)
{
	int err = fault_result(FAULT_SET_MUTE);
	u32 mute = 0;

	if (!err && copy_from_user(&mute, argument, sizeof(mute)))
		err = -EFAULT;
	if (!err)
		vexa_program_mute(mute);
	event_log("uac SET_SPK_MUTE %u %d", mute, err);
	return err;
}

static long uac_ioctl(struct file *file, unsigned int command, unsigned long argument)
{
	long err;

	switch (command) {
	case VEXA_INIT_SYNC:
		return init_sync();
	case VEXA_SET_SPK_VOLUME:
		return set_volume((const void __user *)argument);
	case VEXA_SET_SPK_MUTE:
		return set_mute((const void __user *)argument);
	default:
		err = vexa_control_fops.unlocked_ioctl(file, command, argument);
		event_log("uac ioctl 0x%08x %ld", command, err);
		return err;
	}
}

static const char *mode_name(const struct file *file)
{
	if (!(file->f_mode & FMODE_WRITE))
		return "r";
	return file->f_mode & FMODE_READ ? "rw" : "w";
}

static int uac_open(struct inode *inode, struct file *file)
{
	event_log("uac open %s", mode_name(file));
	return vexa_control_fops.open(inode, file);
}

static int uac_release(struct inode *inode, struct file *file)
{
	event_log("uac close %s", mode_name(file));
	return 0;
}

static __poll_t uac_poll(struct file *file, poll_table *table)
{
	return vexa_control_fops.poll(file, table);
}

static const struct file_operations uac_fops = {
	.owner = THIS_MODULE,
	.open = uac_open,
	.release = uac_release,
	.read = uac_read,
	.poll = uac_poll,
	.unlocked_ioctl = uac_ioctl,
	.compat_ioctl = compat_ptr_ioctl,
};

static void log_queued(u32 type, u32 data, unsigned int count)
{
	if (count == 1)
		event_log("uac record type=%u data=0x%08x", type, data);
	else
		event_log("uac record type=%u data=0x%08x count=%u", type, data, count);
}

void uac_wake_readers(void)
{
	wake_up_interruptible(&vexa_records_wait);
}

void uac_user_show(struct seq_file *seq)
{
	struct vexa_state state;

	vexa_get_state(&state);
	seq_printf(seq, "records.queued %llu\nrecords.read %llu\nrecords.dropped %llu\n"
		   "records.waiting %u\n", state.queued, state.read, state.dropped, state.waiting);
}

int uac_user_init(void)
{
	static const struct vexa_watcher watcher = { .queued = log_queued };

	vexa_watch(&watcher);
	return vexa_control_init(&uac_fops);
}
