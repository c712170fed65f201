/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The gadget without its wire: the sound card, the control device with its records, and the android_usb
 * device. The driver puts USB on the other side of it, the simulated board a simulated host.
 *
 * "Speaker" is what the host plays, captured on the card; "mic" what it records, played on the card.
 *
 * Locks. A caller may hold locks of its own; none of these is held while one is called, except for the
 * state lock around vexa_watcher.queued.
 *   PCM stream lock	the sound core's; held around trigger and pointer, taken by vexa_packet
 *   port lock		pcm.c: which PCM runs; inside the PCM stream lock; any context
 *   state lock		state.c: the state and the queue of records; any context
 *   android0 lock	android0.c: the word; process context
 * Adding and removing the card is for one caller at a time.
 */
#ifndef VEXA_H
#define VEXA_H

#include <linux/atomic.h>
#include <linux/fs.h>
#include <linux/types.h>
#include <linux/wait.h>
#include <sound/pcm.h>

struct device;

#define VEXA_RATE		48000
#define VEXA_PACKET_FRAMES	48	/* audio frames in a USB frame of one millisecond */
#define VEXA_PACKET_BYTES	(VEXA_PACKET_FRAMES * sizeof(s16))

enum vexa_dir { VEXA_SPEAKER, VEXA_MIC, VEXA_DIRS };

/* pcm.c: the PCM, and the port at which the host's packets meet the PCM that runs. */

/* A stream of the card. It lives inside the card, which lives until its last file is closed. */
struct vexa_stream {
	enum vexa_dir dir;
	struct snd_pcm_substream *substream;	/* while open */
	unsigned int position;			/* frames into the ring */
	unsigned int into_period;		/* frames since the last period's end */
	u64 moved;				/* frames since prepare */
	atomic_t pins;				/* held from outside the PCM operations */
};

/* What the card's PCM does. A module may wrap these operations and give the card its own. */
extern const struct snd_pcm_ops vexa_pcm_ops;

int vexa_pcm_new(struct snd_card *card, const struct snd_pcm_ops *ops);
struct vexa_stream *vexa_stream_of(struct snd_pcm_substream *substream);
bool vexa_stream_runs(struct vexa_stream *stream);

/*
 * The PCM that runs in a direction, or NULL. It stays open until vexa_put_running, for which a closing
 * program waits; any context. The packets of one direction come one at a time.
 */
struct vexa_stream *vexa_get_running(enum vexa_dir dir);
void vexa_put_running(struct vexa_stream *stream);
/* Moves frames between @samples and the ring; true: a period has ended, to be told to the sound core. */
bool vexa_move(struct vexa_stream *stream, void *samples, unsigned int frames);
/* All of it for one packet; false: no PCM runs, nothing has moved. */
bool vexa_packet(enum vexa_dir dir, void *samples, unsigned int frames);

/* card.c: at most one registered card. */

/* What a card is called; any index when @index is negative. */
struct vexa_card_name {
	int index;
	const char *id;
	const char *where;	/* ends the long name */
};

/* -EBUSY: there is a card already, or the index is taken. */
int vexa_card_add(struct device *parent, const struct vexa_card_name *name,
		  const struct snd_pcm_ops *ops);
/* Open streams are disconnected; the card goes with its last file. -ENODEV: there is no card. */
int vexa_card_remove(void);
int vexa_card_number(void);	/* -1: none */

/* state.c: what the function's state is, and the records that tell the daemon of its changes. */

enum vexa_record_type {
	VEXA_BIND,
	VEXA_UNBIND,
	VEXA_ACTIVE,	/* + direction, as in all that follow */
	VEXA_VOLUME = VEXA_ACTIVE + VEXA_DIRS,
	VEXA_MUTE = VEXA_VOLUME + VEXA_DIRS,
};

struct vexa_record {
	u32 type;
	u32 data;
};

struct vexa_state {
	bool bound;
	bool active[VEXA_DIRS];
	s16 volumes[VEXA_DIRS];		/* 1/256 dB */
	bool mutes[VEXA_DIRS];
	u64 queued, read, dropped;	/* records */
	unsigned int waiting;
};

/* For a module that wants to know; set before anything happens. */
struct vexa_watcher {
	/* Records are queued, with data that counts up; under the state lock. */
	void (*queued)(u32 type, u32 data, unsigned int count);
	/* A program has set the speaker's volume or mute; process context. */
	void (*set)(void);
};

extern wait_queue_head_t vexa_records_wait;

void vexa_watch(const struct vexa_watcher *watcher);
void vexa_get_state(struct vexa_state *state);
/* What the host or the bus does: state and record in one; any context. -ENOSPC: the queue is full. */
int vexa_set_bound(bool bound);	/* unbinding ends both streams without a record */
int vexa_set_active(enum vexa_dir dir, bool active);
int vexa_set_volume(enum vexa_dir dir, s16 volume);
int vexa_set_mute(enum vexa_dir dir, bool mute);
/* What a program does: state without a record. */
void vexa_program_volume(s16 volume);
void vexa_program_mute(bool mute);
/* Records that change nothing. The data counts up; -ENOSPC: some were dropped. */
int vexa_record(u32 type, u32 data, unsigned int count);
/* Drops what is queued, which is older than the answer, and queues the present state. */
void vexa_init_sync(void);
bool vexa_take_record(struct vexa_record *record);	/* false: the queue is empty */
bool vexa_has_record(void);

/* control_device.c: character device 122:0. */

#define VEXA_SET_SPK_VOLUME	_IOW(0xF5, 1, s16)
#define VEXA_SET_SPK_MUTE	_IOW(0xF5, 2, u32)
#define VEXA_INIT_SYNC		_IOR(0xF5, 3, u32)

/* What the device does. A module may wrap these operations and give the device its own. */
extern const struct file_operations vexa_control_fops;

int vexa_control_init(const struct file_operations *fops);
void vexa_control_exit(void);

/* android0.c: /sys/class/android_usb/android0, for kernels that have none. */

#define VEXA_STATE_LEN	32	/* room for a word of the state */

int vexa_android0_init(void);
void vexa_android0_exit(void);
/* Shows @word as the state and, unless @quiet, sends it in a uevent; process context. */
int vexa_android0_tell(const char *word, bool quiet);
struct device *vexa_android0(void);

#endif
