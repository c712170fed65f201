// SPDX-License-Identifier: Apache-2.0
/* How a step of the model ends, and the calls with which one thread waits for another.
 *
 * To verify, a step is one access to what another thread can meet meanwhile; a STEP { ... } has one at
 * most. For traces (REPLAY) a step is everything from one call that can wait, or that the world can
 * answer in more than one way, to the next one: that much a unit test can hold the real threads to. A
 * process then works only while it has the turn: it gives it up before such a call (PARK) and takes it
 * with the call (GO). */

#ifdef REPLAY
#define STEP
byte turn;  /* whose, 0 = nobody's */
#define PARK turn = (turn == _pid -> 0 : turn);
#define GO(condition) (turn == 0 && (condition)) -> turn = _pid;
/* A call, with what can be seen of both channels just before it. */
#define CALL(...) printf(__VA_ARGS__); SHOW(SRC) SHOW(SNK) printf("\n");
#define SHOW(c)                                                                               \
  printf(" %d%d%d%d", ch[c].state, ch[c].count, ch[c].joinPending, ch[c].named);              \
  printf("%d%d%d", ch[c].pcm, ch[c].fifo, ch[c].workerThread != NONE);                        \
  printf("%d", c == SRC && src.bufferThread != NONE);
/* What a step does between two calls that can be seen from outside. */
#define NOTE(...) printf("  "); printf(__VA_ARGS__); printf("\n");
#else
#define STEP atomic
#define PARK
#define GO(condition) (condition) ->
#define CALL(...)
#define NOTE(...)
#endif

/* A pause between two looks, and what the next look is for. A look that would find nothing new is no
 * step of its own, or a thread that looks for ever would pass for one that gets on. */
#ifdef REPLAY
#define PAUSE(who, c) PARK atomic { GO(true) CALL("%e %d sleep", who, c) }
#define NEWS(what) true
#else
#define PAUSE(who, c)
#define NEWS(what) (what)
#endif

/* The moment before a call that can wait, when a signal is lost. */
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
