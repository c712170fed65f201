// SPDX-License-Identifier: Apache-2.0
// The base of the two audio channels: device names, worker thread, the three-state life cycle that
// the gadget's events drive, the debounced stop, and the messages to the companion app. A derived
// channel supplies only the stream: uafLoop, uafStart and uafStop.
//
// The event loop calls setDevName, intfUpdate, setVolume and setMute. The worker thread calls
// isRunning once per pass and, after an I/O failure, intfUpdate(false). Logs under the tag "UAFCH":
// requests, stops and messages at debug level, failures as errors.
#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include <alsa/asoundlib.h>

#include "channel/app_fifo.h"
#include "channel/dev_name.h"
#include "channel/stream_shape.h"

namespace uafd {

constexpr int kWaitTimeoutMs = 10;     // of one snd_pcm_wait, so that isRunning is polled
constexpr unsigned kLogPasses = 6000;  // between two progress lines

// How many calls of isRunning after an off request stop the channel (the last of them does).
constexpr uint32_t kStopDelayPasses = 4;

enum UafChState : int {
    UAFCH_RUNNING = 1,   // stream open, worker thread running
    UAFCH_STOPPING = 2,  // switched off; the worker goes on while it counts stopDelayCnt up
    UAFCH_STOPPED = 3,   // no stream, no worker
};

class UafCh {
  public:
    // `msgType` is the app message type of this channel's on and off messages.
    explicit UafCh(int msgType);
    // Stops no stream and joins no thread: the channels live as long as the process.
    virtual ~UafCh();
    UafCh(const UafCh&) = delete;
    UafCh& operator=(const UafCh&) = delete;

    // The worker's body: runs on the worker thread until isRunning() returns false.
    virtual void uafLoop() = 0;
    // Opens the stream, on the thread of intfUpdate(true), under intfMutex. Negative on failure,
    // which the derived channel logs, except when memory runs out.
    virtual int uafStart() = 0;
    // Closes the stream, on the worker thread, under intfMutex. Returns 0.
    virtual int uafStop() = 0;

    // Sets both names to copies of the texts; a null text unsets the name. Event loop only; takes
    // no lock, so a channel that is still stopping may find its names gone. Always 0. Logs nothing.
    int setDevName(const char* newFifoName, const char* newPcmName);

    // The state machine of on and off requests. Any thread but the source's buffer thread. Returns
    // 0, or -1 when a name is unset, the stream did not start, or its thread could not be created.
    // A thread of the channel that waits for the app to open the FIFO looks at its path again. Does
    // not wait for the app.
    int intfUpdate(bool on);

    // The worker thread's entry: runs uafLoop of `channel`.
    static void* ChThread(void* channel);

    // True while the worker goes on. The fourth call after an off request stops the channel here,
    // on the worker thread, and returns false. Between the request and the stop the stream simply
    // runs, and an on request cancels the stop.
    bool isRunning();

    // Queue one message of `type` for the app: the volume in the low 16 bits, in the gadget
    // driver's unit, or 1 for muted and 0 for not. Any thread; state and lock are not touched.
    // Always 0.
    int setVolume(int16_t volume, uint32_t type);
    int setMute(bool mute, uint32_t type);

    // Converts `frames` interleaved frames in place between 1 and 2 channels; `buf` holds
    // frames x max(inCh, outCh) samples. To mono the left sample is kept, without mixing. Fewer
    // than one frame changes nothing, nor does any other pair of different counts, which is logged.
    static void adjCh(int16_t* buf, int inCh, int outCh, int frames);

  protected:
    // intfUpdate(false) for the thread that a stop joins while it holds intfMutex. Does not wait in
    // the lock but tries it every millisecond, and returns 0 without effect once the stop has ended
    // the FIFO's waits: in every state in which that can happen, an off has no effect.
    int requestStop();

    // Called at the beginning and the end of every thread that reads the names: while one exists,
    // no copy is freed.
    void holdDevNames() { nameReaders.fetch_add(1, std::memory_order_relaxed); }
    void releaseDevNames() { nameReaders.fetch_sub(1, std::memory_order_release); }

    // Sleeps as long as a wait that times out. Call it after something that fails at once, so that
    // a real-time thread does not spin.
    static void pauseForTimeout();

    // xrun_recovery of the PCM, with its result. Logs under `tag`, error level:
    // "ALSA xrun recovery failed (%s)\n".
    int recoverPcm(int err, const char* tag);

    // Handles a pass in which snd_pcm_wait returned `waitResult` instead of 1. After an xrun or a
    // suspend it recovers the PCM; anything else is a stall. Stalls are counted in pcmStallCnt, up
    // to INT_MAX, and never stop the channel, whatever their code and however long they last: the
    // host has merely stopped. Returns the result of the pass: the recovery's, or 0 for a stall.
    // Logs under `tag`: "rc=%d\n" (error) after a failed recovery, and on the first stall of a run
    // "timeout0, rc=%d\n" (debug).
    int missedWait(int waitResult, const char* tag);

    bool joinPending = false;               // a finished worker waits to be joined; intfMutex
    std::atomic<uint32_t> stopDelayCnt{0};  // isRunning calls since the off request
    snd_pcm_t* pcmHandle = nullptr;         // null when closed
    DevName pcmName;                        // ALSA device name
    DevName fifoName;                       // path of the channel's FIFO
    AppFifo fifo;                           // the FIFO, used by the thread that moves its sound
    // Never read. uafStart allocates it, fails when it cannot, and keeps it until destruction.
    snd_pcm_status_t* pcmStatus = nullptr;
    int pcmStallCnt = 0;   // consecutive waits that found the PCM not ready
    int availChkCnt = 0;   // ready periods since the sink's backlog check
    pthread_t threadId{};  // the current or last worker
    // Read without the lock: a stale value costs one pass. Release and acquire, so that a worker
    // that sees UAFCH_STOPPING counts from the 0 that the off request wrote before it.
    std::atomic<int> state{UAFCH_STOPPED};
    const uint32_t msgType;  // type of the on and off messages
    // Guards the state's transitions, uafStart and uafStop. It is held while uafStop joins the
    // source's buffer thread, which must therefore never wait for it (requestStop). Lock order: a
    // thread may take it while it holds the source's frame-buffer mutex, never the other way round.
    pthread_mutex_t intfMutex;

  private:
    bool beginUpdate(bool on) const;
    int update(bool on, int lockError);
    int switchOff();
    int switchOn();
    int start();
    int stop();

    std::atomic<int> nameReaders{0};  // threads that may hold a loaded name
};

}  // namespace uafd
