// SPDX-License-Identifier: Apache-2.0
/* The life cycle of both channels, for the spin model checker; tests/model/check verifies it.
 *
 * A process of the model stands for a thread of the daemon or a part of its world, an inline for the
 * function of the same name:
 *
 *   Loop          the main thread: EventLoop::run, handle, bind, unbind; uafBind;      event_loop.pml
 *                 and the USB host, whose events it reads                            world.pml
 *   SourceWorker  UafCh::ChThread on UafSrc::uafLoop, pcmWrite, takeFrame              uaf_src.pml
 *   Buffer        UafSrc::UafSrcBufferThread, bufferLoop, bufferPass, fifoRead         uaf_src.pml
 *   SinkWorker    UafCh::ChThread on UafSnk::uafLoop, pcmRead, fifoWrite               uaf_snk.pml
 *                 UafCh::intfUpdate, requestStop, switchOn, switchOff, start, stop,
 *                 isRunning                                                            uaf_ch.pml
 *                 AppFifo                                                              app_fifo.pml
 *   App           the companion app at one FIFO                                        world.pml
 *
 * SOURCE, SINK: the channels that take part; the other one gets no event. FAULTS: the frame buffer's
 * calls may fail. LIVENESS: what must happen in the end (properties.pml). REPLAY: traces for the unit
 * test (steps.pml). Each name that begins with WITHOUT_ or WITH_ plants one defect; tests/model/check
 * lists what each must break. */

#define SRC 0
#define SNK 1
#ifdef SOURCE
#define FIRST SRC
#else
#define FIRST SNK
#endif
#ifdef SINK
#define LAST SNK
#ifdef LIVENESS
#define SETTLES
#endif
#else
#define LAST SRC
#endif

#define STOP_DELAY_PASSES 4

/* UafChState */
#define RUNNING 1
#define STOPPING 2
#define STOPPED 3

/* A thread, from its creation until it has been joined. */
#define NONE 0
#define CREATED 1
#define FINISHED 2

/* A blocking call. */
#define IDLE 0
#define ENTERING 1     /* the thread is about to make it */
#define LOOKED 2       /* the path has been looked up */
#define WAITS 3
#define DONE 4
#define REFUSED 5
#define INTERRUPTED 6

mtype = { nobody, loop, worker, buffer };

typedef Channel {
  /* UafCh */
  byte state = STOPPED;
  byte count;                /* stopDelayCnt */
  bool joinPending;
  bool named = false;        /* pcmName and fifoName */
  byte nameReaders;
  bool pcm;                  /* pcmHandle is open */
  bool fifo;                 /* the app's FIFO is open */
  byte workerThread = NONE;
  mtype intfMutex = nobody;  /* who holds it */
  /* AppFifo */
  byte opening = IDLE;       /* its thread's open of the path */
  byte transfer = IDLE;      /* its thread's read or write */
  bool ended;                /* waits end at once */
  bool sought[2];            /* the loop, the worker: has met an open that is not over */
  /* The FIFO and the app */
  bool exists = true;        /* the path leads to a FIFO */
  bool nameless;             /* the path no longer leads to the FIFO that the daemon uses */
  bool app;                  /* the app has the other end of the path's FIFO */
  bool kept;                 /* the app has the other end of the nameless FIFO */
  bool settled;              /* the app is there for ever, and reads or writes */
  /* For the properties */
  bool told;                 /* the last message was an on */
  bool untold;               /* a worker could not be created: its on is not followed by an off */
  bool wanted;               /* the last request that had an effect was an on */
  bool counting;             /* the worker has seen the off and still waits to stop */
  bool late;                 /* an on has come since the worker saw the off */
  bool stray;                /* the worker has counted although an on had cancelled the stop */
};
Channel ch[2];

typedef Source {
  bool frameBuffer;          /* ssrsCtx is built */
  mtype ssrsMutex = nobody;
  byte bufferThread = NONE;
  bool joinable;             /* bufferThreadJoinable */
  bool running;              /* bufferThreadRunning */
};
Source src;

/* The thread that uses the channel's FIFO, and whether the app has the other end. */
#define USER(c) (c == SRC -> src.bufferThread : ch[c].workerThread)
#define CONNECTED(c) (ch[c].nameless -> ch[c].kept : ch[c].app)

#include "steps.pml"
#include "world.pml"
#include "app_fifo.pml"
#include "uaf_ch.pml"
#ifdef SOURCE
#include "uaf_src.pml"
#endif
#ifdef SINK
#include "uaf_snk.pml"
#endif
#include "event_loop.pml"
#ifdef LIVENESS
#include "properties.pml"
#endif

init {
  atomic {
    run Loop();
#ifdef SOURCE
    run App(SRC);
    run SourceWorker();
    run Buffer();
#endif
#ifdef SINK
    run App(SNK);
    run SinkWorker();
#endif
  }
}
