// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget sound card, registered and removed at run time, also while streams are open.
 */
#include <linux/module.h>
#include <linux/workqueue.h>
#include <sound/core.h>
#include "usb_board.h"

/* Programs find the gadget's card by the driver name. */
#define GADGET_DRIVER	"Vexa_Gadget"
#define GADGET_ID	"Gadget"

static struct snd_card *card;

static int fill_and_register(struct snd_card *fresh)
{
	int err;

	strscpy(fresh->driver, GADGET_DRIVER, sizeof(fresh->driver));
	strscpy(fresh->shortname, GADGET_DRIVER, sizeof(fresh->shortname));
	strscpy(fresh->longname, GADGET_DRIVER " behind a USB host", sizeof(fresh->longname));
	err = gadget_pcm_new(fresh, fresh->private_data);
	return err ? err : snd_card_register(fresh);
}

static bool index_taken(int index)
{
	struct snd_card *other = snd_card_ref(index);

	if (other)
		snd_card_unref(other);
	return other;
}

int gadget_card_add(int index)
{
	struct snd_card *fresh;
	int err;

	if (index < 0 || index >= SNDRV_CARDS)
		return -EINVAL;
	if (card || index_taken(index))
		return -EBUSY;
	/* The streams live inside the card, which outlives its removal until the last close. */
	err = snd_card_new(board_device, index, GADGET_ID, THIS_MODULE,
			   USB_DIRS * sizeof(struct gadget_stream), &fresh);
	if (err)
		return err;
	err = fill_and_register(fresh);
	if (err) {
		snd_card_free(fresh);
		return err;
	}
	card = fresh;
	event_log("card add %d", card->number);
	return 0;
}

int gadget_card_remove(void)
{
	struct snd_card *gone = card;

	if (!gone)
		return -ENODEV;
	card = NULL;
	event_log("card remove");
	snd_card_free_when_closed(gone);
	return 0;
}

int gadget_card_number(void)
{
	return card ? card->number : -1;
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

void gadget_card_exit(void)
{
	if (card)
		snd_card_free(card);
	card = NULL;
}
