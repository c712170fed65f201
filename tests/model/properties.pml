// SPDX-License-Identifier: Apache-2.0
/* What must happen in the end, if every thread gets its turn, and gets a lock that is free time
 * and again while the thread wants it. What must not happen is asserted where it would happen. */

#define C FIRST

/* The source's stop ends whatever the app does. The sink's stop is its worker's, which first waits
 * for the app in its open or write; once the app is back for good, only a FIFO that lost its name
 * after the last event can keep the worker there. */
#ifdef SOURCE
#define STOP_IS_DUE true
#else
#define STOP_IS_DUE (ch[C].settled && !(ch[C].opening == WAITS && ch[C].nameless))
#endif

/* No event is handled for ever, no channel is stopping for ever after the host's last event, and
 * intfMutex is not held for ever. */
#define STUCK \
  (ch[C].intfMutex == nobody && (!handled || quiet && ch[C].state == STOPPING && STOP_IS_DUE))
#define HELD (ch[C].intfMutex != nobody)

#ifndef FAIR_CLAIM
ltl progress { !(<>[] STUCK || <>[] HELD) }
#else
/* The same property, but the claim itself demands the turns, not the verifier's search: something
 * bad goes on for ever although the loop (process 1), the worker (3) and the buffer thread (4)
 * each move, or cannot move, again and again. */
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
