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
  :: ch[c].opening == WAITS && !ch[c].nameless -> ch[c].opening = LET_OUT
  :: else
  fi
}

/* The app comes and goes and makes its FIFO anew, until it settles: it then holds its end open for
 * ever, and writes or reads. */
proctype App(byte c) {
  do
  :: PARK
     if
     :: atomic { GO(ch[c].exists && !ch[c].app) CALL("app %d open", c) appOpens(c) }
     :: atomic { GO(ch[c].app) CALL("app %d close", c) ch[c].app = false }
#if !defined(FAULTS) || defined(REPLAY)
     :: atomic {
          GO(ch[c].exists) CALL("app %d delete", c)
          ch[c].exists = false; ch[c].app = false;
          ch[c].nameless = ch[c].fifo || ch[c].opening == WAITS || ch[c].opening == LET_OUT
        }
     :: atomic { GO(!ch[c].exists) CALL("app %d make", c) ch[c].exists = true }
#endif
#ifndef REPLAY
     :: atomic {
          ch[c].exists ->
          if
          :: !ch[c].app -> appOpens(c)
          :: else
          fi;
          ch[c].settled = true;
          break
        }
#endif
     fi
  od
}
