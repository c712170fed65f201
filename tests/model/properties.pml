/* What must come about, once the app of the channel has settled and every thread gets its turn.
 * What must not happen stands as assertions where it would. */

#define C FIRST

/* Nobody answers a FIFO that has lost its name. The sink's worker is let out of it by the next
 * event, the source's buffer thread also by the stop that joins it. */
#define WAITS_ON_NAMELESS (C == SNK && ch[C].opening == WAITS && ch[C].nameless)

/* After the host's last event no channel keeps on stopping, and the handling of every event comes to
 * its end. */
ltl progress {
  !<>[] (ch[C].settled &&
         (quiet && ch[C].state == STOPPING && !WAITS_ON_NAMELESS || !handled))
}
