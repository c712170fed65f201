/* UafSrc: the source channel's start and stop, its buffer thread and its worker. */

/* A call of the frame buffer, under its lock. It cannot fail with the sizes in use, but the code has
 * an answer: the lock stays held until the stop is requested. */
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
  if
#ifndef WITHOUT_SSRS_UNLOCK
  :: src.ssrsMutex == who -> src.ssrsMutex = nobody
#endif
  :: else
  fi
}

/* ---- Start and stop: under intfMutex ---- */

inline sourceStart(failed) {
  if
  :: ch[SRC].pcm -> sourceStop(loop)
  :: else
  fi;
  buildFrameBuffer();
  startBufferThread(failed);
  /* Without its buffer thread the channel starts with no PCM, and stops itself. */
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
     d_step { src.stopRequested = false; ch[SRC].abandoned = false; ch[SRC].nameReaders++ };
     PARK
     if
     :: atomic { GO(true) CALL("loop %d create-buffer done", SRC)
          assert(src.bufferThread == NONE); src.bufferThread = CREATED; src.joinable = true }
     :: atomic { GO(true) CALL("loop %d create-buffer refused", SRC)
          ch[SRC].nameReaders--; failed = true }
     fi
  fi
}

inline sourceStop(who) {
  if
  :: src.joinable ->
     src.running = false;
#ifndef WITHOUT_STOP_REQUEST
     src.stopRequested = true;
#endif
     abandonOpening(who, SRC);
#ifdef WITHOUT_BUFFER_JOIN
     src.bufferThread = NONE;
#else
     PARK atomic {
       GO(src.bufferThread == FINISHED) CALL("%e %d join-buffer", who, SRC)
       src.bufferThread = NONE
     };
#endif
     d_step { src.running = false; src.joinable = false; ch[SRC].nameReaders-- }
  :: else
  fi;
  atomic { ch[SRC].pcm = false; src.frameBuffer = false }
}

/* ---- The buffer thread ---- */

#define KEEP_BUFFERING (src.running && !src.stopRequested)

inline bufferPass(failed) {
  fifoRead(failed);
  if
  :: failed
  :: else ->
     useFrameBuffer(buffer, failed)
  fi
}

/* At the end of the file a block of silence goes into the frame buffer. */
inline fifoRead(failed) {
  if
  :: ch[SRC].fifo
  :: else -> openFifo(buffer, SRC, failed)
  fi;
  if
  :: failed
  :: else ->
     PARK
     if
     :: atomic { GO(TRANSFERS(SRC)) CALL("buffer %d read done", SRC) }
     :: atomic { GO(TRANSFERS(SRC) && !ch[SRC].settled) CALL("buffer %d read failed", SRC)
          closeFifo(SRC); failed = true }
     :: atomic { GO(!CONNECTED(SRC)) CALL("buffer %d read end", SRC) closeFifo(SRC) }
     fi
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

/* ---- The worker ---- */

inline pcmWrite(failed) {
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

proctype Buffer() {
  bool failed, tried;
end:
  do
  :: PARK atomic { GO(src.bufferThread == CREATED) CALL("buffer %d begin", SRC) }
     src.running = true;
     do
     :: KEEP_BUFFERING ->
        failed = false;
        bufferPass(failed);
        if
        :: failed ->
           requestStop(buffer, SRC, src.stopRequested, tried);
           unlockSsrsIfHeld(buffer);
           endFailedBufferPass()
        :: else
        fi
     :: else -> break
     od;
     PARK atomic { GO(true) CALL("buffer %d end", SRC) src.bufferThread = FINISHED }
  od
}

proctype SourceWorker() {
  bool goesOn, failed, alert;
end:
  do
  :: beginWorker(SRC);
     do
     :: isRunning(SRC, goesOn);
        if
        :: goesOn -> failed = false; pcmWrite(failed)
        :: else -> beginStop(SRC); sourceStop(worker); endStop(SRC, alert); break
        fi;
        if
        :: failed ->
           requestOwnOff(SRC);
           unlockSsrsIfHeld(worker)
        :: else
        fi
     od;
     endWorker(SRC)
  od
}
