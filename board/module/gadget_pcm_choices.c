// SPDX-License-Identifier: GPL-2.0-only
/*
 * Faults while a program chooses hardware parameters. Each fault is a rule of the sound core's
 * constraint solver that refuses once its parameter has been narrowed down to one value. Where the
 * card leaves no choice, one is offered for as long as the fault is armed.
 */
#include <sound/pcm.h>
#include <sound/pcm_params.h>
#include "usb_board.h"

static bool chosen(struct snd_pcm_hw_params *params, int parameter)
{
	if (parameter <= SNDRV_PCM_HW_PARAM_LAST_MASK)
		return snd_mask_single(hw_param_mask(params, parameter));
	return snd_interval_single(hw_param_interval(params, parameter));
}

static int refuse(struct snd_pcm_hw_params *params, struct snd_pcm_hw_rule *rule)
{
	const int *error = rule->private;

	return chosen(params, rule->var) ? *error : 0;
}

static int refuse_all(struct snd_pcm_hw_params *params, struct snd_pcm_hw_rule *rule)
{
	const int *error = rule->private;

	return *error;
}

static int arm_choice(struct snd_pcm_runtime *runtime, int point, int parameter)
{
	struct gadget_handle *handle = runtime->private_data;
	int *error = &handle->choice_fault[point];

	*error = fault_result(point + handle->dir);
	if (!*error)
		return 0;
	return snd_pcm_hw_rule_add(runtime, 0, parameter,
				   point == FAULT_CONFIG ? refuse_all : refuse, error, parameter, -1);
}

static void offer_choice(struct snd_pcm_runtime *runtime)
{
	const struct gadget_handle *handle = runtime->private_data;
	struct snd_pcm_hardware *hw = &runtime->hw;

	if (handle->choice_fault[FAULT_FORMAT])
		hw->formats |= SNDRV_PCM_FMTBIT_S16_BE;
	if (handle->choice_fault[FAULT_CHANNELS])
		hw->channels_max = 2;
	if (handle->choice_fault[FAULT_RATE]) {
		/* On both sides: alsa-lib takes the only rate left on one side without asking. */
		hw->rates |= SNDRV_PCM_RATE_44100 | SNDRV_PCM_RATE_96000;
		hw->rate_min = 44100;
		hw->rate_max = 96000;
	}
}

int gadget_pcm_limit_choices(struct snd_pcm_substream *substream)
{
	static const struct {
		enum fault_point point;
		int parameter;
	} choices[] = {
		{ FAULT_CONFIG, SNDRV_PCM_HW_PARAM_RATE },
		{ FAULT_ACCESS, SNDRV_PCM_HW_PARAM_ACCESS },
		{ FAULT_FORMAT, SNDRV_PCM_HW_PARAM_FORMAT },
		{ FAULT_CHANNELS, SNDRV_PCM_HW_PARAM_CHANNELS },
		{ FAULT_RATE, SNDRV_PCM_HW_PARAM_RATE },
		{ FAULT_BUFFER, SNDRV_PCM_HW_PARAM_BUFFER_SIZE },
		{ FAULT_PERIOD, SNDRV_PCM_HW_PARAM_PERIOD_SIZE },
	};
	struct snd_pcm_runtime *runtime = substream->runtime;
	int i, rate, err;

	for (i = 0; i < ARRAY_SIZE(choices); i++) {
		err = arm_choice(runtime, choices[i].point, choices[i].parameter);
		if (err < 0)
			return err;
	}
	offer_choice(runtime);
	if (fault_take(FAULT_OTHER_RATE + vexa_stream_of(substream)->dir, &rate)) {
		runtime->hw.rates = SNDRV_PCM_RATE_CONTINUOUS;
		runtime->hw.rate_min = rate;
		runtime->hw.rate_max = rate;
	}
	return 0;
}
