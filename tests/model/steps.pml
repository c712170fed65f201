// SPDX-License-Identifier: Apache-2.0
/* Where a step of the model ends, and the calls with which one thread waits for another.
 *
 * For verification a step is one access to shared state, and STEP { ... } contains at most one.
 * For traces (REPLAY) a step lasts from one call to the next, where a call is one that can wait or
 * one that the world can answer in more than one way: a unit test can make the real threads follow
 * such steps. A process then works only while it has the turn: it gives the turn up before such a
 * call (PARK) and takes it with the call (GO). */

#ifdef REPLAY
#define STEP
byte turn;  /* whose, 0 = nobody's */
#define PARK turn = (turn == _pid -> 0 : turn);
#define GO(condition) (turn == 0 && (condition)) -> turn = _pid;
/* A call, with the visible state of both channels just before it. */
#define CALL(...) printf(__VA_ARGS__); SHOW(SRC) SHOW(SNK) printf("\n");
#define SHOW(c)                                                                               \
  printf(" %d%d%d%d", ch[c].state, ch[c].count, ch[c].joinPending, ch[c].named);              \
  printf("%d%d%d", ch[c].pcm, ch[c].fifo, ch[c].workerThread != NONE);                        \
  printf("%d", c == SRC && src.bufferThread != NONE);
/* An effect of a step, between two calls, that can be seen from outside. */
#define NOTE(...) printf("  "); printf(__VA_ARGS__); printf("\n");
#else
#define STEP atomic
#define PARK
#define GO(condition) (condition) ->
#define CALL(...)
#define NOTE(...)
#endif

/* A pause between two looks, and the news for which the next look is made. A look without news is
 * not a step, or a thread that looks for ever would count as one that makes progress. */
#ifdef REPLAY
#define PAUSE(who, c) PARK atomic { GO(true) CALL("%e %d sleep", who, c) }
#define NEWS(what) true
#else
#define PAUSE(who, c)
#define NEWS(what) (what)
#endif

/* The moment before a call that can wait: a signal that comes now is lost. */
#ifdef REPLAY
#define ENTER(who, c) PARK atomic { GO(true) CALL("%e %d enter", who, c) }
#else
#define ENTER(who, c)
#endif

inline lockIntf(who, c) {
  PARK atomic { GO(ch[c].intfMutex == nobody) CALL("%e %d lock", who, c) ch[c].intfMutex = who }
}

inline unlockIntf(who, c) {
  atomic { assert(ch[c].intfMutex == who); ch[c].intfMutex = nobody }
}
