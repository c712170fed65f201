// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget sound card, gadget/card.c, with a log.
 */
#include <linux/workqueue.h>
#include "usb_board.h"

int gadget_card_add(int index)
{
	const struct vexa_card_name name = {
		.index = index,
		.id = "Gadget",
		.where = "behind a USB host",
	};
	int err = index < 0 ? -EINVAL : vexa_card_add(board_device, &name, &gadget_pcm_ops);

	if (!err)
		event_log("card add %d", vexa_card_number());
	return err;
}

int gadget_card_remove(void)
{
	if (vexa_card_number() >= 0)
		event_log("card remove");
	return vexa_card_remove();
}

static void remove_card(struct work_struct *work)
{
	mutex_lock(&gadget_mutex);
	gadget_card_remove();
	mutex_unlock(&gadget_mutex);
}

/*
 * Removal never waits for a PCM operation that is under way, only for the mutex, whose owners do
 * not wait for one either; so a PCM operation may wait for it.
 */
void gadget_card_remove_now(void)
{
	struct work_struct work;

	INIT_WORK_ONSTACK(&work, remove_card);
	schedule_work(&work);
	flush_work(&work);
	destroy_work_on_stack(&work);
}

/* No program has it open, or the module could not go. */
void gadget_card_exit(void)
{
	vexa_card_remove();
}
