// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget control device: records to the reader, requests from the daemon.
 */
#include <linux/cdev.h>
#include <linux/fs.h>
#include <linux/kfifo.h>
#include <linux/module.h>
#include <linux/poll.h>
#include <linux/seq_file.h>
#include <linux/uaccess.h>
#include "usb_board.h"

/* The number is fixed because the daemon makes the node itself. */
#define UAC_DEVICE	MKDEV(122, 0)
#define UAC_QUEUE	16384	/* records */

#define UAC_SET_SPK_VOLUME	_IOW(0xF5, 1, s16)
#define UAC_SET_SPK_MUTE	_IOW(0xF5, 2, u32)
#define UAC_INIT_SYNC		_IOR(0xF5, 3, u32)

struct uac_user_record {
	u32 type;
	u32 data;
};

static DEFINE_KFIFO(records, struct uac_user_record, UAC_QUEUE);
static u64 queued, delivered, dropped;
static DEFINE_SPINLOCK(queue_lock);
static DECLARE_WAIT_QUEUE_HEAD(queue_wait);
static struct cdev uac_cdev;

int uac_record(u32 type, u32 data, unsigned int count)
{
	struct uac_user_record record = { .type = type, .data = data };
	unsigned int done = 0;

	if (count == 1)
		event_log("uac record type=%u data=0x%08x", type, data);
	else
		event_log("uac record type=%u data=0x%08x count=%u", type, data, count);
	spin_lock(&queue_lock);
	while (done < count && kfifo_put(&records, record)) {
		record.data++;
		done++;
	}
	queued += done;
	dropped += count - done;
	spin_unlock(&queue_lock);
	wake_up_interruptible(&queue_wait);
	return done == count ? 0 : -ENOSPC;
}

void uac_drop_records(void)
{
	spin_lock(&queue_lock);
	dropped += kfifo_len(&records);
	kfifo_reset(&records);
	spin_unlock(&queue_lock);
}

void uac_wake_readers(void)
{
	wake_up_interruptible(&queue_wait);
}

static bool take_record(struct uac_user_record *record)
{
	bool got;

	spin_lock(&queue_lock);
	got = kfifo_get(&records, record);
	delivered += got;
	spin_unlock(&queue_lock);
	return got;
}

static ssize_t deliver(const struct uac_user_record *record, char __user *buffer)
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
	struct uac_user_record record;
	int error;

	if (count < sizeof(record))
		return -EINVAL;
	if (fault_take(FAULT_READ, &error))
		return spoilt_read(error);
	while (!take_record(&record)) {
		if (file->f_flags & O_NONBLOCK)
			return -EAGAIN;
		if (wait_event_interruptible(queue_wait, !kfifo_is_empty(&records) ||
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

static __poll_t uac_poll(struct file *file, poll_table *table)
{
	poll_wait(file, &queue_wait, table);
	return kfifo_is_empty(&records) ? 0 : EPOLLIN | EPOLLRDNORM;
}

static long init_sync(void)
{
	int err = fault_result(FAULT_INIT_SYNC);

	if (!err && mutex_lock_interruptible(&gadget_mutex))
		return -ERESTARTSYS;
	event_log("uac INIT_SYNC %d", err);
	if (err)
		return err;
	gadget_init_sync();
	mutex_unlock(&gadget_mutex);
	return 0;
}

static long set_volume(const void __user *argument)
{
	int err = fault_result(FAULT_SET_VOLUME);
	s16 volume = 0;

	if (!err && copy_from_user(&volume, argument, sizeof(volume)))
		err = -EFAULT;
	if (!err)
		gadget_store_volume(SPEAKER, volume);
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
		gadget_store_mute(SPEAKER, mute);
	event_log("uac SET_SPK_MUTE %u %d", mute, err);
	return err;
}

static long uac_ioctl(struct file *file, unsigned int command, unsigned long argument)
{
	switch (command) {
	case UAC_INIT_SYNC:
		return init_sync();
	case UAC_SET_SPK_VOLUME:
		return set_volume((const void __user *)argument);
	case UAC_SET_SPK_MUTE:
		return set_mute((const void __user *)argument);
	default:
		event_log("uac ioctl 0x%08x %d", command, -ENOTTY);
		return -ENOTTY;
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
	return stream_open(inode, file);
}

static int uac_release(struct inode *inode, struct file *file)
{
	event_log("uac close %s", mode_name(file));
	return 0;
}

static const struct file_operations uac_fops = {
	.owner = THIS_MODULE,
	.open = uac_open,
	.release = uac_release,
	.read = uac_read,
	.poll = uac_poll,
	.unlocked_ioctl = uac_ioctl,
	.compat_ioctl = compat_ptr_ioctl,
	.llseek = no_llseek,
};

void uac_user_show(struct seq_file *seq)
{
	spin_lock(&queue_lock);
	seq_printf(seq, "records.queued %llu\nrecords.read %llu\nrecords.dropped %llu\n"
		   "records.waiting %u\n", queued, delivered, dropped, kfifo_len(&records));
	spin_unlock(&queue_lock);
}

int uac_user_init(void)
{
	int err = register_chrdev_region(UAC_DEVICE, 1, "uac_user");

	if (err)
		return err;
	cdev_init(&uac_cdev, &uac_fops);
	uac_cdev.owner = THIS_MODULE;
	err = cdev_add(&uac_cdev, UAC_DEVICE, 1);
	if (err)
		unregister_chrdev_region(UAC_DEVICE, 1);
	return err;
}

void uac_user_exit(void)
{
	cdev_del(&uac_cdev);
	unregister_chrdev_region(UAC_DEVICE, 1);
}
