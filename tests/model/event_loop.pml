// SPDX-License-Identifier: Apache-2.0
/* EventLoop, and the card binding that it calls. */

bool handled = true;  /* the loop waits for the next event */
bool quiet;           /* no event will come */

/* Without the card the names stay as they are. */
inline uafBind(found) {
  PARK
  if
  :: atomic { GO(true) CALL("loop 0 card found") found = true }
     for (each : FIRST .. LAST) { setDevName(each, true) }
  :: atomic { GO(true) CALL("loop 0 card missing") found = false }
  fi
}

inline unbind() {
  if
  :: bound ->
     for (each : FIRST .. LAST) { requestOff(each) }
     for (each : FIRST .. LAST) { setDevName(each, false) }
  :: else
  fi;
  bound = false
}

/* Takes no lock. After the old names are gone and before the new ones are set there are none. */
inline setDevName(c, names) {
  d_step {
    assert(ch[c].nameReaders > 0 || ch[c].opening == IDLE);  /* a name in use is not freed */
    ch[c].named = false
  };
  ch[c].named = names
}

proctype Loop() {
  mtype event;
  byte c, each;
  bool on, bound, failed, isLast;
  do
  :: PARK atomic {
       GO(true) nextEvent(event, c, on, isLast);
       if
       :: isLast -> quiet = true; break
       :: else -> CALL("loop %d event %e-%d", c, event, on) handled = false
       fi
     };
     if
     :: event == bindEvent -> uafBind(bound)
     :: event == unbindEvent -> unbind()
     :: event == activeEvent ->
        if
        :: !bound && on -> uafBind(bound)
        :: else
        fi;
        intfUpdate(loop, c, on, failed)
     fi;
     atomic { handled = true; event = 0; c = 0; each = 0; on = false; failed = false }
  od
}
