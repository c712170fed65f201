/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The gadget without its wire: the sound card, the control device with its records, and the android_usb
 * device. The driver puts USB on the other side of it, the simulated board a simulated host.
 *
 * "Speaker" is what the host plays, captured on the card; "mic" what it records, played on the card. A frame
 * is one sample: signed, 16 bits, little-endian. Results are 0 or a negative errno. Nothing here logs.
 *
 * Locks. A caller may hold locks of its own. The watcher is called with none of these held, except that
 * queued is called under the state lock.
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

/* Gives a card, whose private data has room for VEXA_DIRS streams, its PCM device 0; process context. */
int vexa_pcm_new(struct snd_card *card, const struct snd_pcm_ops *ops);
struct vexa_stream *vexa_stream_of(struct snd_pcm_substream *substream);
/* Whether it is the PCM of its direction that runs; any context, without a lock. */
bool vexa_stream_runs(struct vexa_stream *stream);

/*
 * The PCM that runs in a direction, or NULL. It stays open until vexa_put_running, for which a closing
 * program waits; any context. The packets of one direction come one at a time.
 */
struct vexa_stream *vexa_get_running(enum vexa_dir dir);
void vexa_put_running(struct vexa_stream *stream);
/*
 * Moves frames between @samples and the ring of a stream that the caller holds, at most a ring of them; any
 * context. True: a period has ended, and the caller tells the sound core.
 */
bool vexa_move(struct vexa_stream *stream, void *samples, unsigned int frames);
/* Moves a packet between @samples and the PCM that runs; any context. False: no PCM runs, nothing has moved. */
bool vexa_packet(enum vexa_dir dir, void *samples, unsigned int frames);

/* card.c: at most one registered card. */

/* What a card is called; the first free index when @index is negative. */
struct vexa_card_name {
	int index;
	const char *id;
	const char *where;	/* ends the long name */
};

/* Process context. -EBUSY: there is a card already, or the index is taken; -EINVAL: no such index. */
int vexa_card_add(struct device *parent, const struct vexa_card_name *name,
		  const struct snd_pcm_ops *ops);
/* Process context. Disconnects open streams; the last close frees the card. -ENODEV: there is no card. */
int vexa_card_remove(void);
int vexa_card_number(void);	/* -1: none */

/* state.c: the function's state, and the records that tell the daemon of its changes. Any context. */

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
	u64 queued, read, dropped;	/* records since loading */
	unsigned int waiting;		/* records in the queue */
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
/* What the host or the bus does: state and record in one. -ENOSPC: the queue is full, the record is lost. */
int vexa_set_bound(bool bound);	/* unbinding ends both streams without a record */
int vexa_set_active(enum vexa_dir dir, bool active);
int vexa_set_volume(enum vexa_dir dir, s16 volume);
int vexa_set_mute(enum vexa_dir dir, bool mute);
/* What a program does to the speaker: state without a record; calls the watcher. Process context. */
void vexa_program_volume(s16 volume);
void vexa_program_mute(bool mute);
/* Records that change nothing. The data counts up; -ENOSPC: some were dropped. */
int vexa_record(u32 type, u32 data, unsigned int count);
/*
 * Drops what is queued, which is older than the answer, and queues the present state: UNBIND, or BIND, both
 * volumes, both mutes, and an on for each stream that is on.
 */
void vexa_init_sync(void);
bool vexa_take_record(struct vexa_record *record);	/* false: the queue is empty */
bool vexa_has_record(void);

/* control_device.c: character device 122:0. */

#define VEXA_SET_SPK_VOLUME	_IOW(0xF5, 1, s16)
#define VEXA_SET_SPK_MUTE	_IOW(0xF5, 2, u32)
#define VEXA_INIT_SYNC		_IOR(0xF5, 3, u32)

/* What the device does. A module may wrap these operations and give the device its own. */
extern const struct file_operations vexa_control_fops;

/* At the module's loading and unloading. -EBUSY: another driver has the number. */
int vexa_control_init(const struct file_operations *fops);
void vexa_control_exit(void);

/* android0.c: /sys/class/android_usb/android0, for kernels that have none. Process context. */

#define VEXA_STATE_LEN	32	/* room for a word of the state */

/* At the module's loading and unloading. The state is DISCONNECTED at first. */
int vexa_android0_init(void);
void vexa_android0_exit(void);
/* Shows @word as the state and, unless @quiet, sends it in a uevent. -EINVAL: the word is too long. */
int vexa_android0_tell(const char *word, bool quiet);
struct device *vexa_android0(void);

#endif
