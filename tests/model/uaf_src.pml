// SPDX-License-Identifier: Apache-2.0
/* UafSrc: the source channel's start and stop, its buffer thread and its worker. */

/* A call of the frame buffer, under its lock. With the sizes in use it cannot fail, but the code
 * handles a failure: the lock stays held until the stop is requested. */
inline useFrameBuffer(who, failed) {
  PARK
  if
  :: atomic { GO(src.ssrsMutex == nobody) CALL("%e %d ssrs done", who, SRC) assert(src.frameBuffer) }
#ifdef FAULTS
  :: atomic { GO(src.ssrsMutex == nobody) CALL("%e %d ssrs failed", who, SRC)
       assert(src.frameBuffer); src.ssrsMutex = who; failed = true }
#endif
  fi
}

inline unlockSsrsIfHeld(who) {
#if defined(FAULTS) && !defined(WITHOUT_SSRS_UNLOCK)
  if
  :: src.ssrsMutex == who -> src.ssrsMutex = nobody
  :: else
  fi
#else
  skip
#endif
}

/* ---- Start and stop: under intfMutex ---- */

inline sourceStart(failed) {
  if
  :: ch[SRC].pcm -> sourceStop(loop)
  :: else
  fi;
  STEP {
    buildFrameBuffer();
    startBufferThread(failed)
  };
  /* Without its buffer thread the channel starts without a PCM, and stops itself. */
  if
  :: failed -> failed = false
  :: else -> openPcm(SRC, failed)
  fi
}

inline buildFrameBuffer() {
  if
  :: !src.frameBuffer && !src.joinable -> src.frameBuffer = true
  :: else
  fi
}

inline startBufferThread(failed) {
  if
  :: src.joinable
  :: else ->
#ifndef WITH_WAITS_ALLOWED_LATE
     ch[SRC].ended = false;
#endif
     src.running = true; ch[SRC].nameReaders++;
     PARK
     if
     :: atomic { GO(true) CALL("loop %d create-buffer done", SRC)
          assert(src.bufferThread == NONE); src.bufferThread = CREATED; src.joinable = true }
     :: atomic { GO(true) CALL("loop %d create-buffer refused", SRC)
          src.running = false; ch[SRC].nameReaders--; failed = true }
     fi
  fi
}

inline sourceStop(who) {
  if
  :: src.joinable ->
     endWaits(who);
#ifdef WITHOUT_BUFFER_JOIN
     src.bufferThread = NONE;
#else
     PARK atomic {
       GO(src.bufferThread == FINISHED) CALL("%e %d join-buffer", who, SRC)
       src.bufferThread = NONE
     };
#endif
#ifdef WITH_SIGNAL_AFTER_JOIN
     signalThread(SRC);
#endif
     atomic {
       /* A FIFO whose read was interrupted stays open for the next start. */
       assert(ch[SRC].transfer != INTERRUPTED || ch[SRC].fifo);
       ch[SRC].transfer = IDLE; src.joinable = false; ch[SRC].nameReaders--
     }
  :: else
  fi;
  d_step { ch[SRC].pcm = false; src.frameBuffer = false }
}

/* ---- The buffer thread ---- */

inline bufferPass(failed, over) {
  fifoRead(failed, over);
  if
  :: failed || over
  :: else -> useFrameBuffer(buffer, failed)
  fi
}

/* At the end of the file the frame buffer gets a block of silence. */
inline fifoRead(failed, over) {
  if
  :: ch[SRC].fifo
  :: else -> openFifo(buffer, SRC, failed, over)
  fi;
  if
  :: failed || over
  :: else ->
     do
     :: beginTransfer(buffer, SRC);
        PARK
endRead:
        if
        :: atomic { GO(ch[SRC].transfer == DONE) CALL("buffer %d read done", SRC)
             ch[SRC].transfer = IDLE; break }
        :: atomic { GO(ch[SRC].transfer == DONE) CALL("buffer %d read failed", SRC)
             ch[SRC].transfer = IDLE; closeFifo(SRC); failed = true; break }
        :: atomic { GO(!CONNECTED(SRC) && ch[SRC].transfer == WAITS) CALL("buffer %d read end", SRC)
             ch[SRC].transfer = IDLE; closeFifo(SRC); break }
        /* The state stays INTERRUPTED until the next read, or until the join, which tests it. */
        :: atomic { GO(ch[SRC].transfer == INTERRUPTED) CALL("buffer %d read interrupted", SRC)
#ifdef WITH_EINTR_AS_FAILURE
             closeFifo(SRC); failed = true; break
#else
             if
             :: ch[SRC].ended -> over = true; break
             :: else
             fi
#endif
           }
        fi
     od
  fi
}

inline endFailedBufferPass() {
#ifdef REPLAY
  if
  :: ch[SRC].state == STOPPED -> PARK atomic { GO(true) CALL("buffer %d sleep", SRC) }
  :: else -> PARK atomic { GO(true) CALL("buffer %d yield", SRC) }
  fi
#else
  skip
#endif
}

proctype Buffer() {
  bool failed, over, tried;
end:
  do
  :: PARK atomic { GO(src.bufferThread == CREATED) CALL("buffer %d begin", SRC) }
#ifdef WITH_WAITS_ALLOWED_LATE
     ch[SRC].ended = false;
#endif
     do
     :: !ch[SRC].ended ->
        bufferPass(failed, over);
        if
        :: over -> over = false; break
        :: failed ->
           requestStop(buffer, SRC, tried);
           unlockSsrsIfHeld(buffer);
           endFailedBufferPass();
           failed = false
        :: else
        fi
     :: else -> break
     od;
     src.running = false;
     PARK atomic { GO(true) CALL("buffer %d end", SRC) src.bufferThread = FINISHED }
  od
}

/* ---- The worker ---- */

inline pcmWrite(failed) {
  STEP {
    if
    :: !ch[SRC].pcm -> failed = true
    :: else ->
       PARK
       if
       :: atomic { GO(true) CALL("worker %d wait ready", SRC) }
          useFrameBuffer(worker, failed)
       :: atomic { GO(true) CALL("worker %d wait timeout", SRC) }
       :: atomic { GO(true) CALL("worker %d wait broken", SRC) failed = true }
       fi
    fi
  }
}

proctype SourceWorker() {
  bool goesOn, failed, alert;
end:
  do
  :: beginWorker(SRC);
     do
     :: isRunning(SRC, goesOn);
        if
        :: STEP { goesOn -> pcmWrite(failed) }
        :: else -> beginStop(SRC); sourceStop(worker); endStop(SRC, alert); break
        fi;
        if
        :: failed ->
           lookAgain(worker, SRC);
           requestOwnOff(SRC);
           unlockSsrsIfHeld(worker);
           failed = false
        :: else
        fi
     od;
     endWorker(SRC)
  od
}
