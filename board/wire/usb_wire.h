/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * What the files of the USB wire show each other. README.md is the contract with user space. Functions are
 * described where they are defined.
 *
 * There is one lock, wire.lock, always taken with interrupts off. It guards everything in struct
 * wire, every pipe and every endpoint; the event log has a lock of its own, taken last. usbcore's
 * lists of URBs are changed under it (usbcore takes its own locks inside).
 *
 * No callback runs under it: a completion of the gadget's (wire_give_request), one of the host's
 * (wire_give_urb) and the gadget driver's own callbacks are called with the lock dropped and
 * interrupts still off. A caller of a function that says "drops the lock" must check everything
 * again afterwards.
 *
 * Only the timer gives an URB back, and it never runs twice at the same time. So while it serves an
 * URB it may drop the lock: the URB stays. A pipe may go as soon as the lock is dropped to give back
 * its last URB.
 */
#ifndef USB_WIRE_H
#define USB_WIRE_H

#include <linux/hrtimer.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/types.h>
#include <linux/usb.h>
#include <linux/usb/gadget.h>
#include <linux/usb/hcd.h>

struct seq_file;

#define UFRAME_NS 125000          /* a microframe on the host's clock */
#define NEVER U64_MAX             /* a microframe that does not come */
#define ENDPOINTS 8               /* endpoint 0, and 1 to 7 in each direction */
#define ADDRESSES (2 * ENDPOINTS) /* number * 2 + in; endpoint 0 is 0 */
#define PPB_LIMIT 100000000
#define PORT_CHANGE(bit) ((u32)(USB_PORT_STAT_C_##bit) << 16)

struct wire_request { /* a request of the gadget's */
    struct usb_request req;
    struct list_head link; /* empty: not queued */
};

struct wire_ep { /* an endpoint of the device controller */
    struct usb_ep ep;
    char name[8];
    unsigned int address;                       /* 0 to ADDRESSES - 1 */
    const struct usb_endpoint_descriptor* desc; /* NULL: not enabled */
    struct list_head requests;
    bool halted, wedged;
};

struct wire_pipe {                 /* an endpoint as the host sees it, from its first URB on */
    struct list_head link;         /* in wire.pipes */
    struct usb_host_endpoint* hep; /* whose hcpriv this is */
    unsigned int address;
    u64 next;   /* the microframe of the next packet, at the earliest */
    int packet; /* of the first URB, isochronous: the next one */
    int tries;  /* of the present packet that went wrong */
    bool asked; /* control: the gadget has the first URB's setup packet */
};

enum wire_fault { FAULT_NONE, FAULT_LOST, FAULT_CRC, FAULT_BABBLE, FAULTS };

enum wire_kind {
    DO_PLUG,
    DO_UNPLUG,
    DO_SPEED,
    DO_PPB,
    DO_RESET,
    DO_SUSPEND,
    DO_RESUME,
    DO_POLL,
    DO_FAULT,
};

struct wire_action { /* what a command asks for */
    enum wire_kind kind;
    u64 at;               /* the microframe; when planned */
    unsigned int address; /* DO_POLL, DO_FAULT */
    int value;            /* DO_SPEED, DO_PPB, DO_POLL, DO_FAULT */
    unsigned int times;   /* DO_FAULT; 0: until cleared */
};

#define PLANNED_MAX 64
#define ALL_ADDRESSES ADDRESSES /* an action's address that means every one */

struct wire_clock {
    int ppb;
    u64 divisor;                  /* 10^9 + ppb */
    u64 step, step_rest;          /* a microframe: ns, and the rest in parts of the divisor */
    u64 base, base_ns, base_rest; /* a microframe in the past, when it began */
    u64 since, since_ns;          /* the first microframe with this offset, when it began */
};

struct wire_count {     /* of one address, since loading */
    u64 packets, bytes; /* that moved */
    u64 lost, empty;    /* isochronous packets that found no request: OUT, IN */
    u64 errors;         /* that the host met */
    u64 faults;         /* that were injected */
    u64 late;           /* served in a later microframe than their own */
    u64 restarts;       /* of an isochronous stream that had run dry */
    u64 last, last_ns;  /* the microframe of the newest packet, when it began */
    unsigned int type;  /* USB_ENDPOINT_XFER_ */
};

/**
 * struct wire - the only wire
 * @lock: see above
 * @timer: armed for the next microframe in which something is due
 * @ticking: the timer is at work and will arm itself
 * @clock: the host's clock
 * @planned: what commands have planned, oldest first; @planned_count of them
 * @silent: the host sends nothing at all, not even start-of-frame packets
 * @unpolled: a bit for each address that the host leaves out
 * @fault: what is armed for each address, and for how many packets more (0: all)
 * @hcd: the host controller
 * @pipes: the endpoints that the host uses
 * @unlinked: an URB waits to be given back
 * @port: the root port, wPortStatus and wPortChange
 * @reset_ns: when the port's reset began
 * @news: the root hub has something to tell
 * @hub_suspended: and has to be woken for that
 * @full_speed: what the port makes of a device at its next reset
 * @plugged: the cable
 * @gadget: the device controller
 * @driver: the gadget driver, between udc_start and udc_stop
 * @callbacks: the gadget driver may be called
 * @pullup: the gadget wants to be seen
 * @remote_wakeup: the host has allowed it
 * @idle_since: the microframe since when the bus is idle, or NEVER
 * @suspended: the gadget driver knows
 * @state: of the gadget before that
 * @in: IN endpoints, and endpoint 0
 * @out: OUT endpoints, from 1 on
 * @count: counters
 * @late_ns_max: the longest time from a packet's microframe to its move
 */
struct wire {
    spinlock_t lock; /* see above */
    struct hrtimer timer;
    bool ticking;
    struct wire_clock clock;

    struct wire_action planned[PLANNED_MAX];
    unsigned int planned_count;
    bool silent;
    unsigned long unpolled;
    struct {
        enum wire_fault kind;
        unsigned int times;
    } fault[ADDRESSES];

    struct usb_hcd* hcd;
    struct list_head pipes;
    bool unlinked;
    u32 port;
    u64 reset_ns;
    bool news;
    bool hub_suspended;
    bool full_speed;
    bool plugged;

    struct usb_gadget gadget;
    struct usb_gadget_driver* driver;
    bool callbacks;
    bool pullup;
    bool remote_wakeup;
    u64 idle_since;
    bool suspended;
    enum usb_device_state state;
    struct wire_ep in[ENDPOINTS], out[ENDPOINTS];

    struct wire_count count[ADDRESSES];
    u64 late_ns_max;
};

extern struct wire wire;

#define EP0 (&wire.in[0])
#define to_wire_ep(pointer) container_of(pointer, struct wire_ep, ep)
#define to_wire_request(pointer) container_of(pointer, struct wire_request, req)

/* clock.c, all under the lock */
void wire_clock_init(void);
void wire_clock_rate(int ppb, u64 uframe);
u64 wire_uframe(void);
u64 wire_uframe_ns(u64 uframe);

/* schedule.c, all under the lock */
void wire_schedule_init(void);
void wire_arm(void);
void wire_kick(unsigned int address, u64 uframe);
int wire_plan(const struct wire_action* action);
struct urb* wire_first_urb(const struct wire_pipe* pipe);
u64 wire_interval(const struct urb* urb);
u64 wire_slot(u64 uframe, const struct urb* urb);

/* transfer.c, all under the lock */
struct wire_ep* wire_ep_at(unsigned int address);
unsigned int wire_address(u8 descriptor_address);
struct wire_request* wire_first_request(struct wire_ep* ep);
void wire_give_request(struct wire_ep* ep, struct wire_request* request, int status);
void wire_give_urb(struct urb* urb, int status);
bool wire_try_again(struct wire_pipe* pipe, enum wire_fault fault);
int wire_fault_status(enum wire_fault fault);
void wire_serve_iso(struct wire_pipe* pipe, struct urb* urb, u64 uframe);
void wire_serve_data(struct wire_pipe* pipe, struct urb* urb, u64 uframe);

/* control.c, under the lock */
void wire_serve_control(struct wire_pipe* pipe, struct urb* urb, u64 uframe);

/* fault.c, under the lock */
enum wire_fault wire_fault_take(unsigned int address, u64 uframe);
void wire_act(const struct wire_action* action, u64 uframe);
const char* wire_address_name(unsigned int address);
int wire_address_parse(const char* name);
int wire_fault_parse(const char* name);

/* link.c, all under the lock but wire_tell_hub, which must not be called under it */
bool wire_link_up(void);
void wire_link_update(u64 uframe, bool tell);
void wire_link_reset(u64 uframe);
void wire_link_disturb(u64 uframe);
void wire_link_idle(u64 uframe);
u64 wire_link_suspend_due(void);
void wire_link_suspend(void);
void wire_flush_endpoints(void);
void wire_tell_hub(void);

/* hcd.c */
extern const struct hc_driver wire_hc_driver;
int wire_frame_number(struct usb_hcd* hcd);

/* root_hub.c, the root hub's part of hc_driver */
int wire_hub_status(struct usb_hcd* hcd, char* buffer);
int wire_hub_control(struct usb_hcd* hcd, u16 request, u16 value, u16 index, char* buffer,
                     u16 length);
int wire_bus_suspend(struct usb_hcd* hcd);
int wire_bus_resume(struct usb_hcd* hcd);

/* udc.c */
int wire_udc_add(struct device* parent);
void wire_udc_remove(void);

/* udc_ep.c */
void wire_ep_init(struct wire_ep* ep, int number, bool in);

/* command.c, counters.c, event_log.c */
int wire_command_init(void);
void wire_command_exit(void);
int wire_counters_init(void);
void wire_counters_exit(void);
int wire_log_init(void);
void wire_log_exit(void);

/* Any context. */
__printf(2, 3) void wire_log(u64 uframe, const char* format, ...);

#endif
