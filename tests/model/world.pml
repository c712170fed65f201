// SPDX-License-Identifier: Apache-2.0
/* The daemon's surroundings: host and app may do anything in any order, and fall silent for ever
 * at any time. */

mtype = { bindEvent, unbindEvent, activeEvent };

/* The USB host, from which the loop reads its events: they come in any order, repeated or
 * senseless, and any of them may be the last. */
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

/* The companion app at one FIFO, or several apps: one may replace the FIFO while another has an
 * end of the old one open. No step ever has to happen: an app may be silent, halted, or gone for
 * good. */
proctype App(byte c) {
  do
  :: PARK
     if
     :: atomic { GO(ch[c].exists && !ch[c].app) CALL("app %d open", c) appOpens(c) }
     :: atomic { GO(ch[c].app) CALL("app %d close", c) ch[c].app = false }
     :: atomic { GO(ch[c].transfer == WAITS && CONNECTED(c)) CALL("app %d transfer", c)
          ch[c].transfer = DONE }
     /* A signal to the daemon's thread from elsewhere. */
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
     :: ch[c].exists || !ch[c].exists  /* it has the turn and does nothing */
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
