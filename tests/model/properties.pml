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

/* No event is handled for ever, no channel keeps on stopping after the host's last one, and intfMutex
 * is not held for ever. */
#define STUCK \
  (ch[C].intfMutex == nobody && (!handled || quiet && ch[C].state == STOPPING && STOP_IS_DUE))
#define HELD (ch[C].intfMutex != nobody)

#ifndef FAIR_CLAIM
ltl progress { !(<>[] STUCK || <>[] HELD) }
#else
/* The same with the turns in the claim instead of in the verifier's search: something bad goes on for
 * ever, and yet the loop (process 1), the worker (3) and the buffer thread (4) each move or cannot
 * move, again and again. */
#define HAS_TURN(p) (!enabled(p) || _last == p)
#define FOR_EVER(bad)                                                          \
  bad##1: do :: bad && HAS_TURN(1) -> goto bad##3 :: bad && !HAS_TURN(1) od;   \
  bad##3: do :: bad && HAS_TURN(3) -> goto bad##4 :: bad && !HAS_TURN(3) od;   \
  bad##4: do :: bad && HAS_TURN(4) -> goto accept##bad :: bad && !HAS_TURN(4) od; \
  accept##bad: if :: bad -> goto bad##1 fi;
never {
  do
  :: true
  :: STUCK -> goto STUCK1
  :: HELD -> goto HELD1
  od;
  FOR_EVER(STUCK)
  FOR_EVER(HELD)
}
#endif
