// SPDX-License-Identifier: Apache-2.0
/* What the daemon lives with. Both are free to do anything in any order, and to be quiet for ever
 * at any time; what the app owes the daemon, docs/protocol.md tells its developer. */

mtype = { bindEvent, unbindEvent, activeEvent };

/* The USB host, where the loop reads its events: they come in any order, repeated and without
 * sense, and one may be the last. */
inline nextEvent(event, c, on, isLast) {
  if
  :: event = bindEvent
  :: event = unbindEvent
  :: event = activeEvent; c = FIRST; on = true
  :: event = activeEvent; c = FIRST; on = false
#if FIRST != LAST
  :: event = activeEvent; c = LAST; on = true
  :: event = activeEvent; c = LAST; on = false
#endif
#ifndef REPLAY
  :: isLast = true
#endif
  fi
}

inline appOpens(c) {
  ch[c].app = true;
  if
  :: (ch[c].opening == LOOKED || ch[c].opening == WAITS) && !ch[c].nameless -> ch[c].opening = DONE
  :: else
  fi
}

/* Something outside the daemon reads or writes, and its FIFO loses its name with or without an end
 * held. All of that is an app, or several: what it has not done yet it need never do. It stays silent,
 * is stopped in a debugger, leaves for good. */
proctype App(byte c) {
  do
  :: PARK
     if
     :: atomic { GO(ch[c].exists && !ch[c].app) CALL("app %d open", c) appOpens(c) }
     :: atomic { GO(ch[c].app) CALL("app %d close", c) ch[c].app = false }
     :: atomic { GO(ch[c].transfer == WAITS && CONNECTED(c)) CALL("app %d transfer", c)
          ch[c].transfer = DONE }
     /* A signal that is none of the daemon's. */
     :: atomic { GO(ch[c].opening == WAITS) CALL("app %d disturb", c) ch[c].opening = INTERRUPTED }
     :: atomic { GO(ch[c].transfer == WAITS) CALL("app %d disturb", c)
          ch[c].transfer = INTERRUPTED }
#if !defined(FAULTS) || defined(REPLAY)
     :: atomic {
          GO(ch[c].exists) CALL("app %d delete", c)
          if
          :: !ch[c].nameless && (ch[c].fifo || ch[c].opening == LOOKED || ch[c].opening == WAITS ||
                                 ch[c].opening == DONE) ->
             ch[c].nameless = true; ch[c].kept = ch[c].app
          :: else
          fi;
          ch[c].exists = false; ch[c].app = false
        }
     :: atomic { GO(!ch[c].exists) CALL("app %d make", c) ch[c].exists = true }
     :: atomic { GO(ch[c].kept) CALL("app %d drop", c) ch[c].kept = false }
#endif
#ifdef LIVENESS
     :: ch[c].exists || !ch[c].exists  /* nothing: a turn is no duty */
#elif !defined(REPLAY)
     :: break
#endif
#ifdef SETTLES
     :: atomic {
          ch[c].exists && !ch[c].kept -> ch[c].settled = true;
          if
          :: !ch[c].app -> appOpens(c)
          :: else
          fi;
          break
        }
#endif
     fi
  od;
#ifdef SETTLES
  do
  :: atomic { ch[c].transfer == WAITS && CONNECTED(c) -> ch[c].transfer = DONE }
  od
#endif
}
