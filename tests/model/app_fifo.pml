// SPDX-License-Identifier: Apache-2.0
/* AppFifo: the calls in which a thread waits for the app, and the signal that ends such a wait.
 * `who` is the thread, `c` the channel. The class's mutex is held for single steps only. */

/* A signal ends a wait. A signal before the wait is lost, even one between the look at the path
 * and the wait: there Linux would keep it, but nothing here relies on that. */
inline signalThread(c) {
  d_step {
    NOTE("%d signal", c)
    assert(USER(c) != NONE);  /* a joined thread gets no signal */
    if
    :: ch[c].opening == WAITS -> ch[c].opening = INTERRUPTED
#ifndef WITHOUT_READ_SIGNAL
    :: ch[c].transfer == WAITS -> ch[c].transfer = INTERRUPTED
#endif
    :: else
    fi
  }
}

/* ---- The thread that uses the FIFO ---- */

/* As in every call that waits for the app, a thread may stay here for ever: that is no deadlock. */
inline openFifo(who, c, failed, over) {
  if
  :: !ch[c].named -> failed = true
  :: else ->
     do
     :: ch[c].opening = ENTERING;
        ENTER(who, c)
        lookUp(c);
        PARK
endOpen:
        if
        :: atomic { GO(ch[c].opening == DONE) CALL("%e %d open done", who, c)
             endLook(c); ch[c].fifo = true; break }
        :: atomic { GO(ch[c].opening == REFUSED) CALL("%e %d open refused", who, c)
             endLook(c); failed = true; break }
        :: atomic { GO(ch[c].opening == INTERRUPTED) CALL("%e %d open interrupted", who, c)
             endLook(c); ch[c].nameless = false;
             if
#ifndef WITHOUT_LETTING_OUT
             :: ch[c].ended -> over = true; break
#endif
             :: else
             fi }
        fi
     od
  fi
}

/* Looks where the path leads, then waits. */
inline lookUp(c) {
  d_step {
    if
    :: !ch[c].exists -> ch[c].opening = REFUSED
    :: else -> ch[c].opening = (ch[c].app -> DONE : LOOKED)
    fi
  };
  d_step {
    if
    :: ch[c].opening == LOOKED -> ch[c].opening = WAITS
    :: else
    fi
  }
}

inline endLook(c) {
  d_step { ch[c].opening = IDLE; ch[c].sought[0] = false; ch[c].sought[1] = false }
}

/* Begins a read or write, up to its wait. */
inline beginTransfer(who, c) {
  ENTER(who, c)
  ch[c].transfer = WAITS
}

inline closeFifo(c) {
  d_step { ch[c].fifo = false; ch[c].nameless = false; ch[c].kept = false }
}

/* ---- Any other thread ---- */

#define SOUGHT(who, c) ch[c].sought[(who == loop -> 0 : 1)]

#ifdef WITHOUT_LOOK_SIGNAL
#define SIGNAL_LOOKING(c)
#else
#define SIGNAL_LOOKING(c) signalThread(c)
#endif

#if defined(WITHOUT_LOOK_SIGNAL) || defined(WITH_ONE_LOOK_SIGNAL)
#define SEEKS(who, c) false
#elif defined(WITHOUT_LOOK_COUNT)
#define SEEKS(who, c) (ch[c].opening != IDLE)
#else
#define SEEKS(who, c) SOUGHT(who, c)
#endif

/* Returns when the thread that was opening the FIFO has finished or looks at the path again. */
inline lookAgain(who, c) {
#ifdef WITHOUT_LOOK_LOCK
  if
  :: ch[c].opening != IDLE -> signalThread(c)
  :: else
  fi
#else
  if
  :: atomic { ch[c].opening != IDLE -> SOUGHT(who, c) = true; SIGNAL_LOOKING(c) };
     do
     :: PAUSE(who, c)
        if
        :: atomic { SEEKS(who, c) && NEWS(ch[c].opening == WAITS) -> signalThread(c) }
        :: atomic {
             !SEEKS(who, c) ->
             /* The thread no longer waits on the FIFO to which the path led before the event. */
             assert(!SOUGHT(who, c) || (ch[c].opening != LOOKED && ch[c].opening != WAITS));
             SOUGHT(who, c) = false;
             break
           }
        fi
     od
  :: else
  fi
#endif
}

/* Returns when the buffer thread has left its loop, in whatever call it was. */
inline endWaits(who) {
#ifndef WITHOUT_ENDED_WAITS
  ch[SRC].ended = true;
#endif
#ifdef WITH_ONE_STOP_SIGNAL
  signalThread(SRC)
#else
  do
#ifndef WITHOUT_STOP_SIGNAL
  :: STEP {
       src.running -> signalThread(SRC);
       PAUSE(who, SRC)
       NEWS(!src.running || ch[SRC].opening == WAITS || ch[SRC].transfer == WAITS)
     }
#endif
  :: else -> break
  od
#endif
}
