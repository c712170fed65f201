/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What the files of the simulated board show each other. README.md is the contract with user space. The
 * gadget itself is the driver's own sources, gadget/; the host on its other side is simulated here.
 *
 * Results are 0 or a negative errno. X_init and X_exit are called at the module's loading and unloading;
 * X_show prints a part's counters into /proc/usb_host. What says nothing of its context is called in process
 * context.
 *
 * Locks, outermost first:
 *   gadget_mutex	whatever changes the simulated world as a whole: commands, unplugging
 *   host_stream.user_end	a queue's end at the test program: its device, and flushing
 *   PCM stream lock	the sound core's; held around trigger and pointer
 *   host_lock		host_clock.c: the streams, their queues' far ends and the clock; taken in the timer
 *   the gadget's own	gadget/vexa.h
 *   the locks of the faults and the event log, each within its file and last
 */
#ifndef USB_BOARD_H
#define USB_BOARD_H

#include <linux/atomic.h>
#include <linux/kfifo.h>
#include <linux/mutex.h>
#include <linux/types.h>
#include <linux/wait.h>
#include <sound/pcm.h>
#include "gadget/vexa.h"

struct seq_file;

#define USB_FRAME_NS		1000000	/* a USB frame on the host's clock */
#define COMMAND_ARGS		40

extern const char *const usb_dir_names[VEXA_DIRS];	/* "speaker", "mic" */
extern const char *const pcm_dir_names[VEXA_DIRS];	/* "capture", "playback" */

/* core.c: the device that the sound cards hang from */
extern struct device *board_device;

/* event_log.c: adds a line with the present time; a full log loses its oldest line. Any context. */
__printf(1, 2) void event_log(const char *format, ...);
int event_log_init(void);
void event_log_exit(void);

/* faults.c: any context; the PCM points come once per direction, in the order of enum vexa_dir */
enum fault_point {
	FAULT_OPEN,
	FAULT_HW_PARAMS = FAULT_OPEN + VEXA_DIRS,
	FAULT_PREPARE = FAULT_HW_PARAMS + VEXA_DIRS,
	FAULT_START = FAULT_PREPARE + VEXA_DIRS,
	FAULT_RESUME = FAULT_START + VEXA_DIRS,
	FAULT_TRANSFER = FAULT_RESUME + VEXA_DIRS,
	FAULT_ACK = FAULT_TRANSFER + VEXA_DIRS,
	FAULT_OTHER_RATE = FAULT_ACK + VEXA_DIRS,
	FAULT_UNPLUG = FAULT_OTHER_RATE + VEXA_DIRS,
	FAULT_CONFIG = FAULT_UNPLUG + VEXA_DIRS,	/* from here the choices of hardware parameters */
	FAULT_ACCESS = FAULT_CONFIG + VEXA_DIRS,
	FAULT_FORMAT = FAULT_ACCESS + VEXA_DIRS,
	FAULT_CHANNELS = FAULT_FORMAT + VEXA_DIRS,
	FAULT_RATE = FAULT_CHANNELS + VEXA_DIRS,
	FAULT_BUFFER = FAULT_RATE + VEXA_DIRS,
	FAULT_PERIOD = FAULT_BUFFER + VEXA_DIRS,
	FAULT_READ = FAULT_PERIOD + VEXA_DIRS,
	FAULT_READ_SHORT,
	FAULT_INIT_SYNC,
	FAULT_SET_VOLUME,
	FAULT_SET_MUTE,
	FAULT_ENUMERATE,
	FAULT_POINTS
};

/* Counts a call at the point. True: a fault fires, and *value is its VALUE. */
bool fault_take(enum fault_point point, int *value);
int fault_result(enum fault_point point);	/* 0, or the negative errno of a fault that fires */
unsigned int fault_armings(enum fault_point point);	/* how often it was armed */
int fault_command(int argc, char **argv);	/* the command fault; -EINVAL: not understood */
void fault_show(struct seq_file *seq);

/* uac_user.c: the gadget control device, with its log and its faults */
void uac_wake_readers(void);	/* has waiting reads look for a fault; any context */
void uac_user_show(struct seq_file *seq);
int uac_user_init(void);

/* gadget_function.c: what plugging and binding do; under gadget_mutex */
extern struct mutex gadget_mutex;
extern int gadget_index;	/* the card's usual index */

int gadget_bind(int index);	/* adds the card if it is missing, then queues BIND */
void gadget_unbind(void);	/* ends both streams, queues UNBIND, removes the card */
void gadget_plug(void);		/* cable, CONNECTED, CONFIGURED */
void gadget_unplug(void);	/* cable, DISCONNECTED, ends the streams that are on */
int gadget_reenumerate(void);	/* DISCONNECTED, unbind, bind, and with a cable CONNECTED, CONFIGURED */
void gadget_stream(enum vexa_dir dir, bool on);	/* the host switches a stream; queues the record */
void gadget_function_show(struct seq_file *seq);
int gadget_function_init(bool bound, bool plugged);	/* takes gadget_mutex itself */

/* gadget_card.c: the card, with its log; under gadget_mutex */
int gadget_card_add(int index);
int gadget_card_remove(void);
/* For a PCM operation, which must not take the mutex: has another thread remove the card, and waits for it. */
void gadget_card_remove_now(void);
void gadget_card_exit(void);

/* gadget_pcm.c: the card's PCM, with its log, its faults and its counters */
struct gadget_handle {			/* of one opening; the runtime's private data */
	enum vexa_dir dir;
	int choice_fault[FAULT_READ];	/* negative errno by fault point */
	const char *stop_reason;	/* what the next stop is called in the log */
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

extern const struct snd_pcm_ops gadget_pcm_ops;

void gadget_pcm_count(enum vexa_dir dir, enum pcm_count what);	/* any context */
/* On a stream that vexa_get_running gave; any context: stops it, suspends it, tells of a period's end. */
void gadget_pcm_xrun(struct vexa_stream *stream);
void gadget_pcm_suspend(struct vexa_stream *stream);
void gadget_pcm_period(struct vexa_stream *stream);
void gadget_pcm_show(struct seq_file *seq);

/* gadget_pcm_choices.c: gives a PCM that is opened the armed faults in choosing hardware parameters */
int gadget_pcm_limit_choices(struct snd_pcm_substream *substream);

/* host_clock.c: the host's clock and its two streams */
enum injury { INJURY_NONE, INJURY_XRUN, INJURY_SUSPEND };

struct host_stream {
	bool on;
	bool stalled;
	bool dry;			/* the last USB frame was silent */
	struct kfifo queue;		/* bytes to be played, or recorded */
	struct mutex user_end;
	wait_queue_head_t wait;		/* for room or for recorded sound */
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

struct host_stream *host_stream(enum vexa_dir dir);
void host_stream_switch(enum vexa_dir dir, bool on);
void host_stream_stall(enum vexa_dir dir, bool stalled);	/* no data moves although the stream is on */
/* Starts or stops the PCM between two USB frames, under the PCM stream lock. Returns whether it ran before. */
bool host_stream_trigger(struct snd_pcm_substream *substream, int command);
int host_stream_injure(enum vexa_dir dir, enum injury injury);	/* now; -ENXIO: no PCM runs */
/* In the USB frame in which host_stream.frames reaches @frames; replaces what was planned. */
void host_stream_injure_at(enum vexa_dir dir, enum injury injury, u64 frames);
void host_stream_flush(enum vexa_dir dir);	/* empties the host's queue */
void host_clock_offset(int ppb);		/* from the board's clock, parts per 10^9; positive is faster */
void host_clock_show(struct seq_file *seq);
int host_clock_init(void);
void host_clock_exit(void);

/*
 * usb_frame.c: moves the 48 frames of the USB frame that is due at @ns; under host_lock. @stream is the PCM
 * that runs, from vexa_get_running, or NULL. True: a period of it has ended.
 */
bool usb_frame(struct host_stream *host, struct vexa_stream *stream, u64 ns);

/* host_audio.c: the devices for the host's sound */
bool host_audio_ready(struct host_stream *host);	/* for a waiting program; any context */
int host_audio_init(void);
void host_audio_exit(void);

/* host_command.c: /dev/usb_host */
int host_command_init(void);
void host_command_exit(void);

/* android_usb.c: under gadget_mutex; -EINVAL: not understood */
int android_usb_state(const char *word, bool quiet);	/* as vexa_android0_tell, with a line in the log */
/* The commands uevent and foreign: a uevent of android0, or of another subsystem. */
int android_usb_uevent(bool foreign, int argc, char **argv);

/* cable.c: the cable detector; under gadget_mutex */
void cable_set(bool plugged);
bool cable_plugged(void);
struct device *cable_parent(void);	/* a platform device, whose uevents are of another subsystem */
int cable_init(void);
void cable_exit(void);

/* board_card.c: the board's own card, a microphone that records silence */
int board_card_init(void);
void board_card_exit(void);

/* counters.c: /proc/usb_host */
int counters_init(void);
void counters_exit(void);

#endif
