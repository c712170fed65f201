// SPDX-License-Identifier: GPL-2.0-only
/*
 * The gadget's sound card, registered and removed at run time, also while streams are open.
 */
#include <linux/module.h>
#include <sound/core.h>
#include "vexa.h"

/* Programs find the gadget's card by the driver name. */
#define VEXA_CARD_DRIVER	"Vexa_Gadget"

static struct snd_card *card;

static bool index_taken(int index)
{
	struct snd_card *other = snd_card_ref(index);

	if (other)
		snd_card_unref(other);
	return other;
}

static int fill_and_register(struct snd_card *fresh, const char *where, const struct snd_pcm_ops *ops)
{
	int err;

	strscpy(fresh->driver, VEXA_CARD_DRIVER, sizeof(fresh->driver));
	strscpy(fresh->shortname, VEXA_CARD_DRIVER, sizeof(fresh->shortname));
	scnprintf(fresh->longname, sizeof(fresh->longname), VEXA_CARD_DRIVER " %s", where);
	err = vexa_pcm_new(fresh, ops);
	return err ? err : snd_card_register(fresh);
}

int vexa_card_add(struct device *parent, const struct vexa_card_name *name,
		  const struct snd_pcm_ops *ops)
{
	struct snd_card *fresh;
	int err;

	if (name->index >= SNDRV_CARDS)
		return -EINVAL;
	if (card || (name->index >= 0 && index_taken(name->index)))
		return -EBUSY;
	/* The streams live inside the card, which outlives its removal until the last close. */
	err = snd_card_new(parent, name->index, name->id, THIS_MODULE,
			   VEXA_DIRS * sizeof(struct vexa_stream), &fresh);
	if (err)
		return err;
	err = fill_and_register(fresh, name->where, ops);
	if (err) {
		snd_card_free(fresh);
		return err;
	}
	card = fresh;
	return 0;
}

int vexa_card_remove(void)
{
	struct snd_card *gone = card;

	if (!gone)
		return -ENODEV;
	card = NULL;
	snd_card_free_when_closed(gone);
	return 0;
}

int vexa_card_number(void)
{
	return card ? card->number : -1;
}
