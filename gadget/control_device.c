// SPDX-License-Identifier: GPL-2.0-only
/*
 * The control device: records to its readers, requests from programs. It is there for as long as the
 * module is, whatever is bound; the sound daemon makes its node.
 */
#include <linux/cdev.h>
#include <linux/fs.h>
#include <linux/module.h>
#include <linux/poll.h>
#include <linux/uaccess.h>
#include "vexa.h"

/* The number is fixed because the daemon makes the node itself. */
#define VEXA_DEVICE	MKDEV(122, 0)

static struct cdev control_cdev;

static ssize_t control_read(struct file *file, char __user *buffer, size_t count, loff_t *offset)
{
	struct vexa_record record;

	if (count < sizeof(record))
		return -EINVAL;
	while (!vexa_take_record(&record)) {
		if (file->f_flags & O_NONBLOCK)
			return -EAGAIN;
		if (wait_event_interruptible(vexa_records_wait, vexa_has_record()))
			return -ERESTARTSYS;
	}
	return copy_to_user(buffer, &record, sizeof(record)) ? -EFAULT : sizeof(record);
}

static __poll_t control_poll(struct file *file, poll_table *table)
{
	poll_wait(file, &vexa_records_wait, table);
	return vexa_has_record() ? EPOLLIN | EPOLLRDNORM : 0;
}

static long set_volume(const void __user *argument)
{
	s16 volume;

	if (copy_from_user(&volume, argument, sizeof(volume)))
		return -EFAULT;
	vexa_program_volume(volume);
	return 0;
}

static long set_mute(const void __user *argument)
{
	u32 mute;

	if (copy_from_user(&mute, argument, sizeof(mute)))
		return -EFAULT;
	vexa_program_mute(mute);
	return 0;
}

static long control_ioctl(struct file *file, unsigned int command, unsigned long argument)
{
	switch (command) {
	case VEXA_INIT_SYNC:
		/* The argument is not looked at, although the code declares one: the daemon passes none. */
		vexa_init_sync();
		return 0;
	case VEXA_SET_SPK_VOLUME:
		return set_volume((const void __user *)argument);
	case VEXA_SET_SPK_MUTE:
		return set_mute((const void __user *)argument);
	default:
		return -ENOTTY;
	}
}

const struct file_operations vexa_control_fops = {
	.owner = THIS_MODULE,
	.open = stream_open,
	.read = control_read,
	.poll = control_poll,
	.unlocked_ioctl = control_ioctl,
	.compat_ioctl = compat_ptr_ioctl,
};

int vexa_control_init(const struct file_operations *fops)
{
	int err = register_chrdev_region(VEXA_DEVICE, 1, "uac_user");

	if (err)
		return err;
	cdev_init(&control_cdev, fops);
	control_cdev.owner = fops->owner;
	err = cdev_add(&control_cdev, VEXA_DEVICE, 1);
	if (err)
		unregister_chrdev_region(VEXA_DEVICE, 1);
	return err;
}

void vexa_control_exit(void)
{
	cdev_del(&control_cdev);
	unregister_chrdev_region(VEXA_DEVICE, 1);
}
