// SPDX-License-Identifier: Apache-2.0
/* UafSnk: the sink channel's start and stop, and its worker. */

inline sinkStart(failed) {
  if
  :: ch[SNK].pcm -> sinkStop(loop)
  :: else
  fi;
  openPcm(SNK, failed)
}

inline sinkStop(who) {
  ch[SNK].pcm = false;
  closeFifo(SNK)
}

/* A period that is late is replaced by silence, which is written like any other period. */
inline pcmRead(failed) {
  STEP {
    assert(ch[SNK].pcm);
    PARK
    if
    :: atomic { GO(true) CALL("worker %d wait ready", SNK) }
    :: atomic { GO(true) CALL("worker %d wait timeout", SNK) }
    :: atomic { GO(true) CALL("worker %d wait broken", SNK) failed = true }
    fi
  }
}

inline fifoWrite(failed, over) {
  if
  :: ch[SNK].fifo
  :: else -> openFifo(worker, SNK, failed, over)
  fi;
  if
  :: failed
  :: else ->
     do
     :: beginTransfer(worker, SNK);
        PARK
endWrite:
        if
        :: atomic { GO(ch[SNK].transfer == DONE) CALL("worker %d write done", SNK)
             ch[SNK].transfer = IDLE; break }
        :: atomic { GO(!CONNECTED(SNK) && ch[SNK].transfer == WAITS)
             CALL("worker %d write failed", SNK) ch[SNK].transfer = IDLE; closeFifo(SNK); break }
        :: atomic { GO(ch[SNK].transfer == INTERRUPTED) CALL("worker %d write interrupted", SNK)
             ch[SNK].transfer = IDLE }
        fi
     od
  fi
}

proctype SinkWorker() {
  bool goesOn, failed, over, alert;
end:
  do
  :: beginWorker(SNK);
     do
     :: isRunning(SNK, goesOn);
        if
        :: STEP { goesOn -> pcmRead(failed) }
        :: else -> beginStop(SNK); sinkStop(worker); endStop(SNK, alert); break
        fi;
        if
        :: failed
        :: else -> fifoWrite(failed, over)
        fi;
        if
        :: failed -> requestOwnOff(SNK); failed = false
        :: else
        fi
     od;
     endWorker(SNK)
  od
}
