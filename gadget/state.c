// SPDX-License-Identifier: GPL-2.0-only
/*
 * The function's state and the queue of records that tell a reader of its changes. One lock is around
 * both, so that the answer to a sync and the changes after it never get out of order.
 */
#include <linux/kfifo.h>
#include <linux/spinlock.h>
#include "vexa.h"

#define VEXA_QUEUE	16384	/* records */

static DEFINE_SPINLOCK(state_lock);	/* everything here; innermost but for a watcher's own */
static struct vexa_state state;
static DEFINE_KFIFO(records, struct vexa_record, VEXA_QUEUE);
static const struct vexa_watcher *watcher = &(const struct vexa_watcher) {};

DECLARE_WAIT_QUEUE_HEAD(vexa_records_wait);

void vexa_watch(const struct vexa_watcher *new_watcher)
{
	watcher = new_watcher;
}

static int put(u32 type, u32 data, unsigned int count)
{
	struct vexa_record record = { .type = type, .data = data };
	unsigned int done = 0;

	lockdep_assert_held(&state_lock);
	if (watcher->queued)
		watcher->queued(type, data, count);
	while (done < count && kfifo_put(&records, record)) {
		record.data++;
		done++;
	}
	state.queued += done;
	state.dropped += count - done;
	return done == count ? 0 : -ENOSPC;
}

int vexa_record(u32 type, u32 data, unsigned int count)
{
	unsigned long flags;
	int err;

	spin_lock_irqsave(&state_lock, flags);
	err = put(type, data, count);
	spin_unlock_irqrestore(&state_lock, flags);
	wake_up_interruptible(&vexa_records_wait);
	return err;
}

int vexa_set_bound(bool bound)
{
	unsigned long flags;
	int err;

	spin_lock_irqsave(&state_lock, flags);
	state.bound = bound;
	if (!bound)
		memset(state.active, 0, sizeof(state.active));
	err = put(bound ? VEXA_BIND : VEXA_UNBIND, 0, 1);
	spin_unlock_irqrestore(&state_lock, flags);
	wake_up_interruptible(&vexa_records_wait);
	return err;
}

int vexa_set_active(enum vexa_dir dir, bool active)
{
	unsigned long flags;
	int err;

	spin_lock_irqsave(&state_lock, flags);
	state.active[dir] = active;
	err = put(VEXA_ACTIVE + dir, active, 1);
	spin_unlock_irqrestore(&state_lock, flags);
	wake_up_interruptible(&vexa_records_wait);
	return err;
}

int vexa_set_volume(enum vexa_dir dir, s16 volume)
{
	unsigned long flags;
	int err;

	spin_lock_irqsave(&state_lock, flags);
	state.volumes[dir] = volume;
	err = put(VEXA_VOLUME + dir, (u16)volume, 1);
	spin_unlock_irqrestore(&state_lock, flags);
	wake_up_interruptible(&vexa_records_wait);
	return err;
}

int vexa_set_mute(enum vexa_dir dir, bool mute)
{
	unsigned long flags;
	int err;

	spin_lock_irqsave(&state_lock, flags);
	state.mutes[dir] = mute;
	err = put(VEXA_MUTE + dir, mute, 1);
	spin_unlock_irqrestore(&state_lock, flags);
	wake_up_interruptible(&vexa_records_wait);
	return err;
}

void vexa_program_volume(s16 volume)
{
	unsigned long flags;

	spin_lock_irqsave(&state_lock, flags);
	state.volumes[VEXA_SPEAKER] = volume;
	spin_unlock_irqrestore(&state_lock, flags);
	if (watcher->set)
		watcher->set();
}

void vexa_program_mute(bool mute)
{
	unsigned long flags;

	spin_lock_irqsave(&state_lock, flags);
	state.mutes[VEXA_SPEAKER] = mute;
	spin_unlock_irqrestore(&state_lock, flags);
	if (watcher->set)
		watcher->set();
}

static void put_state(void)
{
	enum vexa_dir dir;

	put(VEXA_BIND, 0, 1);
	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++)
		put(VEXA_VOLUME + dir, (u16)state.volumes[dir], 1);
	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++)
		put(VEXA_MUTE + dir, state.mutes[dir], 1);
	for (dir = VEXA_SPEAKER; dir < VEXA_DIRS; dir++)
		if (state.active[dir])
			put(VEXA_ACTIVE + dir, 1, 1);
}

void vexa_init_sync(void)
{
	unsigned long flags;

	spin_lock_irqsave(&state_lock, flags);
	state.dropped += kfifo_len(&records);
	kfifo_reset(&records);
	if (state.bound)
		put_state();
	else
		put(VEXA_UNBIND, 0, 1);
	spin_unlock_irqrestore(&state_lock, flags);
	wake_up_interruptible(&vexa_records_wait);
}

bool vexa_take_record(struct vexa_record *record)
{
	unsigned long flags;
	bool got;

	spin_lock_irqsave(&state_lock, flags);
	got = kfifo_get(&records, record);
	state.read += got;
	spin_unlock_irqrestore(&state_lock, flags);
	return got;
}

bool vexa_has_record(void)
{
	return !kfifo_is_empty(&records);
}

void vexa_get_state(struct vexa_state *copy)
{
	unsigned long flags;

	spin_lock_irqsave(&state_lock, flags);
	*copy = state;
	copy->waiting = kfifo_len(&records);
	spin_unlock_irqrestore(&state_lock, flags);
}
