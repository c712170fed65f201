// SPDX-License-Identifier: Apache-2.0
/* What must come about when every thread gets its turn, and a lock that is free again and again when
 * it wants it. What must not happen stands as assertions where it would. */

#define C FIRST

/* The stop of the source comes to its end whatever the app does; the sink's worker, which makes it,
 * first waits for the app in its own open or write. When the app has come back for good, only a FIFO
 * that lost its name after the last event can keep it there. */
#ifdef SOURCE
#define STOP_IS_DUE true
#else
#define STOP_IS_DUE (ch[C].settled && !(ch[C].opening == WAITS && ch[C].nameless))
#endif

/* No event is handled for ever, no lock is held for ever, and after the host's last event no channel
 * keeps on stopping. */
ltl progress {
  !(<>[] (ch[C].intfMutex == nobody &&
          (!handled || quiet && ch[C].state == STOPPING && STOP_IS_DUE)) ||
    <>[] (ch[C].intfMutex != nobody))
}
