/* UafSnk: the sink channel's start and stop, and its worker. */

inline sinkStart(failed) {
  if
  :: ch[SNK].pcm -> sinkStop(loop)
  :: else
  fi;
  openPcm(SNK, failed)
}

inline sinkStop(who) {
  d_step { ch[SNK].pcm = false; ch[SNK].fifo = false; ch[SNK].nameless = false }
}

/* A period that does not come in time is silence, and is written like any other. */
inline pcmRead(failed) {
  assert(ch[SNK].pcm);
  PARK
  if
  :: atomic { GO(true) CALL("worker %d wait ready", SNK) }
  :: atomic { GO(true) CALL("worker %d wait timeout", SNK) }
  :: atomic { GO(true) CALL("worker %d wait broken", SNK) failed = true }
  fi
}

inline fifoWrite(failed) {
  if
  :: ch[SNK].fifo
  :: else -> openFifo(worker, SNK, failed)
  fi;
  if
  :: failed
  :: else ->
     PARK
     if
     :: atomic { GO(TRANSFERS(SNK)) CALL("worker %d write done", SNK) }
     :: atomic { GO(!CONNECTED(SNK)) CALL("worker %d write failed", SNK) closeFifo(SNK) }
     fi
  fi
}

proctype SinkWorker() {
  bool goesOn, failed, alert;
end:
  do
  :: beginWorker(SNK);
     do
     :: isRunning(SNK, goesOn);
        if
        :: goesOn -> failed = false; pcmRead(failed)
        :: else -> beginStop(SNK); sinkStop(worker); endStop(SNK, alert); break
        fi;
        if
        :: failed
        :: else -> fifoWrite(failed)
        fi;
        if
        :: failed -> requestOwnOff(SNK)
        :: else
        fi
     od;
     endWorker(SNK)
  od
}
