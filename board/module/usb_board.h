/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What the files of the simulated board show each other. README.md is the contract with user space.
 *
 * Locks, outermost first:
 *   gadget_mutex	whatever changes the simulated world as a whole: commands, INIT_SYNC, unplugging
 *   host_stream.user_end	a queue's end at the test program: its device, and flushing
 *   PCM stream lock	the sound core's; held around trigger and pointer
 *   host_lock		host_clock.c: the streams, their queues' far ends and the clock; taken in the timer
 *   the locks of the record queue, the faults and the event log, each within its file and last
 */
#ifndef USB_BOARD_H
#define USB_BOARD_H

#include <linux/atomic.h>
#include <linux/kfifo.h>
#include <linux/mutex.h>
#include <linux/types.h>
#include <linux/wait.h>
#include <sound/pcm.h>

struct seq_file;

#define USB_BOARD_RATE		48000
#define USB_FRAME_SAMPLES	48	/* audio frames in a USB frame */
#define USB_FRAME_NS		1000000	/* a USB frame on the host's clock */
#define GADGET_STATE_LEN	32	/* room for a word of the android_usb state */
#define COMMAND_ARGS		40

enum usb_dir { SPEAKER, MIC, USB_DIRS };

extern const char *const usb_dir_names[USB_DIRS];	/* "speaker", "mic" */
extern const char *const pcm_dir_names[USB_DIRS];	/* "capture", "playback" */

/* core.c: the device that the sound cards hang from */
extern struct device *board_device;

/* event_log.c: any context */
__printf(1, 2) void event_log(const char *format, ...);
int event_log_init(void);
void event_log_exit(void);

/* faults.c: any context; the PCM points come once per direction, in the order of enum usb_dir */
enum fault_point {
	FAULT_OPEN,
	FAULT_HW_PARAMS = FAULT_OPEN + USB_DIRS,
	FAULT_PREPARE = FAULT_HW_PARAMS + USB_DIRS,
	FAULT_START = FAULT_PREPARE + USB_DIRS,
	FAULT_RESUME = FAULT_START + USB_DIRS,
	FAULT_TRANSFER = FAULT_RESUME + USB_DIRS,
	FAULT_ACK = FAULT_TRANSFER + USB_DIRS,
	FAULT_OTHER_RATE = FAULT_ACK + USB_DIRS,
	FAULT_UNPLUG = FAULT_OTHER_RATE + USB_DIRS,
	FAULT_CONFIG = FAULT_UNPLUG + USB_DIRS,	/* from here the choices of hardware parameters */
	FAULT_ACCESS = FAULT_CONFIG + USB_DIRS,
	FAULT_FORMAT = FAULT_ACCESS + USB_DIRS,
	FAULT_CHANNELS = FAULT_FORMAT + USB_DIRS,
	FAULT_RATE = FAULT_CHANNELS + USB_DIRS,
	FAULT_BUFFER = FAULT_RATE + USB_DIRS,
	FAULT_PERIOD = FAULT_BUFFER + USB_DIRS,
	FAULT_READ = FAULT_PERIOD + USB_DIRS,
	FAULT_READ_SHORT,
	FAULT_INIT_SYNC,
	FAULT_SET_VOLUME,
	FAULT_SET_MUTE,
	FAULT_ENUMERATE,
	FAULT_POINTS
};

bool fault_take(enum fault_point point, int *value);
int fault_result(enum fault_point point);	/* 0, or the negative errno of a fault that fires */
unsigned int fault_armings(enum fault_point point);
int fault_command(int argc, char **argv);
void fault_show(struct seq_file *seq);

/* uac_user.c: the gadget control device */
enum uac_event {
	UAC_BIND,
	UAC_UNBIND,
	UAC_ACTIVE,	/* + direction, as in all that follow */
	UAC_VOLUME = UAC_ACTIVE + USB_DIRS,
	UAC_MUTE = UAC_VOLUME + USB_DIRS,
};

/* The data counts up; -ENOSPC: some were dropped. */
int uac_record(u32 type, u32 data, unsigned int count);
void uac_drop_records(void);
void uac_wake_readers(void);
void uac_user_show(struct seq_file *seq);
int uac_user_init(void);
void uac_user_exit(void);

/* gadget_function.c: the function's state, and what plugging and binding do; under gadget_mutex */
extern struct mutex gadget_mutex;
extern int gadget_index;	/* the card's usual index */

void gadget_init_sync(void);
void gadget_store_volume(enum usb_dir dir, s16 volume);	/* these two without the mutex, too */
void gadget_store_mute(enum usb_dir dir, bool mute);
int gadget_bind(int index);
void gadget_unbind(void);
void gadget_plug(void);
void gadget_unplug(void);
int gadget_reenumerate(void);
void gadget_stream(enum usb_dir dir, bool on);
void gadget_function_show(struct seq_file *seq);
int gadget_function_init(bool bound, bool plugged);

/* gadget_card.c: at most one registered card; under gadget_mutex */
int gadget_card_add(int index);
int gadget_card_remove(void);
int gadget_card_number(void);	/* -1: none */
void gadget_card_exit(void);
/* For a PCM operation, which must not take the mutex: does so on another thread. */
void gadget_card_remove_now(void);

/* gadget_pcm.c */
struct gadget_stream {
	enum usb_dir dir;
	struct snd_pcm_substream *substream;	/* while open */
	unsigned int position;			/* frames into the ring */
	unsigned int into_period;		/* frames since the last period's end */
	u64 moved;				/* frames since prepare */
	atomic_t pins;				/* calls into the sound core from outside the PCM operations */
	int choice_fault[FAULT_READ];		/* negative errno by fault point, for this open */
	const char *stop_reason;		/* what the next stop is called in the log */
};

enum pcm_count {
	PCM_OPENS,
	PCM_CLOSES,
	PCM_STARTS,
	PCM_STOPS,
	PCM_XRUNS,
	PCM_SUSPENDS,
	PCM_RESUMES,
	PCM_PERIODS,
	PCM_COUNTS
};

int gadget_pcm_new(struct snd_card *card, struct gadget_stream *streams);
void gadget_pcm_count(enum usb_dir dir, enum pcm_count what);
void gadget_pcm_xrun(struct gadget_stream *stream);	/* these three on a pinned stream */
void gadget_pcm_suspend(struct gadget_stream *stream);
void gadget_pcm_period(struct gadget_stream *stream);
void gadget_pcm_show(struct seq_file *seq);

/* gadget_pcm_choices.c: faults in choosing hardware parameters */
int gadget_pcm_limit_choices(struct gadget_stream *stream);

/* host_clock.c: the host's clock and its two streams */
enum injury { INJURY_NONE, INJURY_XRUN, INJURY_SUSPEND };

struct host_stream {
	bool on;
	bool stalled;
	bool dry;			/* the last USB frame was silent */
	struct kfifo queue;		/* bytes to be played, or recorded */
	struct mutex user_end;
	wait_queue_head_t wait;		/* for room or for recorded sound */
	struct gadget_stream *running;	/* the PCM that is running, if any */
	enum injury injury;		/* to be done when frames reaches injury_at */
	u64 injury_at;
	u64 frames, last_ns;
	u64 on_ns, on_frames;
	u64 first_ns, first_frames;
	u64 start_frames;
	u64 silent, dry_spells;
	u64 lost;			/* frames without a taker: no capture, or the host's queue full */
	u64 stale;			/* played, but not written in time */
};

struct host_stream *host_stream(enum usb_dir dir);
void host_stream_switch(enum usb_dir dir, bool on);
void host_stream_stall(enum usb_dir dir, bool stalled);
void host_stream_attach(struct gadget_stream *stream);	/* the PCM runs */
bool host_stream_detach(struct gadget_stream *stream);	/* false: it did not run */
int host_stream_injure(enum usb_dir dir, enum injury injury);
void host_stream_injure_at(enum usb_dir dir, enum injury injury, u64 frames);
void host_stream_flush(enum usb_dir dir);
void host_clock_offset(int ppb);
void host_clock_show(struct seq_file *seq);
int host_clock_init(void);
void host_clock_exit(void);

/* usb_frame.c: under host_lock; true: a period of the running PCM has ended */
bool usb_frame(struct host_stream *host, u64 ns);

/* host_audio.c: the devices for the host's sound */
bool host_audio_ready(struct host_stream *host);
int host_audio_init(void);
void host_audio_exit(void);

/* host_command.c */
int host_command_init(void);
void host_command_exit(void);

/* android_usb.c: under gadget_mutex */
int android_usb_state(const char *word, bool quiet);
int android_usb_uevent(bool foreign, int argc, char **argv);
void android_usb_cable(bool plugged);
bool android_usb_plugged(void);
int android_usb_init(void);
void android_usb_exit(void);

/* board_card.c */
int board_card_init(void);
void board_card_exit(void);

/* counters.c */
int counters_init(void);
void counters_exit(void);

#endif
