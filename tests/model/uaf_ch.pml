// SPDX-License-Identifier: Apache-2.0
/* UafCh. `who` is the thread, `c` the channel. */

/* ---- Messages ---- */

inline queueMsg(c, on) {
  d_step {
    NOTE("message %d %d", c, on)
    assert(on != ch[c].told || (on && ch[c].untold));
    ch[c].told = on;
    ch[c].untold = false
  }
}

/* ---- Requests ---- */

/* intfUpdate(on); sets `failed` if the request is refused. A channel's threads request only off. */
inline intfUpdate(who, c, on, failed) {
  lookAgain(who, c);
  NOTE("log intfUpdate to %d, current state %d", on, ch[c].state)
  if
  :: !ch[c].named -> NOTE("log devName not set") failed = true
  :: else ->
     lockIntf(who, c);
     if
     :: on -> switchOn(c, failed)
     :: else -> switchOff(c)
     fi;
#ifndef WITHOUT_UNLOCK
     unlockIntf(who, c)
#endif
  fi
}

inline requestOff(c) {
  lookAgain(loop, c);
  NOTE("log intfUpdate to 0, current state %d", ch[c].state)
  if
  :: !ch[c].named -> NOTE("log devName not set")
  :: else -> lockIntf(loop, c); switchOff(c); unlockIntf(loop, c)
  fi
}

/* An off by the worker, which calls lookAgain before. It is one step, since nobody reads without
 * the lock what it changes. */
inline requestOwnOff(c) {
  NOTE("log intfUpdate to 0, current state %d", ch[c].state)
  if
  :: !ch[c].named -> NOTE("log devName not set")
  :: else -> PARK atomic { GO(ch[c].intfMutex == nobody) CALL("worker %d lock", c) switchOff(c) }
  fi
}

/* An off by the thread that a stop joins: it tries the lock, and gives up once waits end at once. */
inline requestStop(who, c, tried) {
  NOTE("log intfUpdate to 0, current state %d", ch[c].state)
  if
  :: !ch[c].named -> NOTE("log devName not set")
  :: else ->
#ifdef WITHOUT_TRYLOCK
     lockIntf(who, c); tried = true;
#else
     tried = false;
     do
     :: PARK
        if
        :: atomic { GO(ch[c].intfMutex == nobody) CALL("%e %d trylock done", who, c)
             ch[c].intfMutex = who; tried = true; break }
        :: STEP {
             atomic { GO(ch[c].intfMutex != nobody) CALL("%e %d trylock busy", who, c) };
             if
             :: ch[c].ended -> break
             :: else -> PAUSE(who, c) NEWS(ch[c].ended || ch[c].intfMutex == nobody)
             fi
           }
        fi
     od;
#endif
     if
     :: tried -> switchOff(c); unlockIntf(who, c); tried = false
     :: else
     fi
  fi
}

inline switchOff(c) {
  if
  :: ch[c].state == RUNNING ->
#ifndef WITHOUT_RESET
     d_step { ch[c].count = 0; ch[c].stray = false };
#endif
     d_step { assert(!ch[c].stray); ch[c].state = STOPPING; ch[c].wanted = false; ch[c].late = false }
  :: else ->
  fi
}

inline cancel(c) {
  ch[c].wanted = true;
  ch[c].late = ch[c].counting
}

inline takeCount(c) {
  d_step { NOTE("log stopDelayCnt = %d", ch[c].count) ch[c].count = 0; ch[c].stray = false }
}

inline switchOn(c, failed) {
  if
  :: ch[c].state == RUNNING
  :: ch[c].state == STOPPING ->
     /* Between the two changes the worker may make passes, which it must not count. */
#ifdef WITH_COUNT_BEFORE_STATE
     atomic { cancel(c); takeCount(c) };
     ch[c].state = RUNNING
#else
     atomic { cancel(c); ch[c].state = RUNNING };
     takeCount(c)
#endif
  :: ch[c].state == STOPPED -> start(c, failed)
  fi
}

inline start(c, failed) {
  d_step { ch[c].count = 0; ch[c].state = RUNNING; ch[c].wanted = true };
#ifdef WITH_EARLY_MESSAGE
  queueMsg(c, 1);
#endif
  if
#ifdef SOURCE
  :: c == SRC -> sourceStart(failed)
#endif
#ifdef SINK
  :: c == SNK -> sinkStart(failed)
#endif
  fi;
  STEP {
    if
    :: failed -> NOTE("log failed to start audio") ch[c].state = STOPPED
    :: else ->
#ifndef WITH_EARLY_MESSAGE
       queueMsg(c, 1);
#endif
#ifndef WITHOUT_JOIN
       if
       :: ch[c].joinPending ->
          PARK atomic {
            GO(ch[c].workerThread == FINISHED) CALL("loop %d join-worker", c)
            ch[c].workerThread = NONE; ch[c].joinPending = false
          }
       :: else
       fi;
#endif
#ifndef WITHOUT_NAME_READERS
       ch[c].nameReaders++;
#endif
       PARK
       if
       :: atomic { GO(true) CALL("loop %d create-worker done", c)
            assert(ch[c].workerThread == NONE); ch[c].workerThread = CREATED }
       :: atomic { GO(true) CALL("loop %d create-worker refused", c)
            failed = true; ch[c].nameReaders--; ch[c].untold = true;
            NOTE("log pthread_create failed") ch[c].state = STOPPED }
       fi
    fi
  }
}

/* How opening the PCM ends in a start. */
inline openPcm(c, failed) {
  STEP {
    assert(!ch[c].pcm);
    PARK
    if
    :: atomic { GO(true) CALL("loop %d pcm done", c) ch[c].pcm = true }
    :: atomic { GO(true) CALL("loop %d pcm refused", c) failed = true }
    :: atomic { GO(true) CALL("loop %d pcm broken", c) ch[c].pcm = true; failed = true }
    fi
  }
}

/* ---- The worker ---- */

inline isRunning(c, goesOn) {
  if
  :: ch[c].state != STOPPING -> goesOn = true
  :: d_step { ch[c].state == STOPPING -> ch[c].counting = true };
     d_step {
       ch[c].count++;
       ch[c].stray = ch[c].state == RUNNING && ch[c].intfMutex == nobody;
       goesOn = ch[c].count < STOP_DELAY_PASSES;
       if
       :: goesOn -> ch[c].counting = false; ch[c].late = false
       :: else
       fi
     }
  fi
}

/* stop(), around uafStop. */
inline beginStop(c) {
#ifndef WITHOUT_STOP_LOCK
  lockIntf(worker, c);
#endif
  ch[c].counting = false
}

inline endStop(c, alert) {
  atomic {
    queueMsg(c, 0);
    NOTE("log UAF channel stopped. Current state is (%d)", ch[c].state)
    /* The only way for a wanted channel to stop: its on came too late to be seen. */
    assert(!ch[c].wanted || ch[c].late);
    assert(ch[c].late == (ch[c].state == RUNNING));
    alert = (ch[c].state != STOPPING);
#ifdef WITHOUT_THE_LATE_ON
    assert(!alert);
#endif
    ch[c].nameReaders--; ch[c].state = STOPPED; ch[c].count = 0; ch[c].joinPending = true;
    ch[c].wanted = false; ch[c].late = false; ch[c].stray = false;
#ifndef WITHOUT_STOP_LOCK
    unlockIntf(worker, c);
#endif
    if
    :: alert ->
       NOTE("log ALERT! This should be impossible and can cause inconsistencies in this channel's state.")
       alert = false
    :: else
    fi
  }
}

/* The thread's first and last step. */
inline beginWorker(c) {
  PARK atomic { GO(ch[c].workerThread == CREATED) CALL("worker %d begin", c) }
}

inline endWorker(c) {
  PARK atomic { GO(true) CALL("worker %d end", c) ch[c].workerThread = FINISHED }
}
