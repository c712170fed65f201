// SPDX-License-Identifier: Apache-2.0
// The source channel: moves the companion app's microphone audio to the USB host. A buffer thread
// reads the app's FIFO in 10 ms blocks, keeps the left channel and writes it into the frame buffer;
// the worker takes 5 ms frames out of it and plays them into the gadget card. Both threads run at
// real-time priority. Logs under the tag "UAFSRC".
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <pthread.h>

#include "channel/frame_buffer.h"
#include "channel/uaf_ch.h"

namespace uafd {

constexpr int kSourceRingFrames = 720;  // of the gadget card's playback stream, 15 ms

class UafSrc : public UafCh {
  public:
    UafSrc();
    // Joins no thread and does not close the PCM.
    ~UafSrc() override;

    void uafLoop() override;
    // 0, even when the buffer thread could not be created (the channel then stops itself); -1
    // without memory; otherwise the negative ALSA code of the step that failed. A failure leaves
    // the PCM and the buffer thread as they are: the next start keeps the thread and closes the
    // PCM.
    int uafStart() override;
    // Ends the buffer thread, even while that waits for the app at the FIFO, and joins it. The FIFO
    // stays open for the next start.
    int uafStop() override;

  private:
    // What one run of the buffer thread counts.
    struct BufferRun {
        unsigned loopcnt = 0;    // successful passes
        unsigned fifoBytes = 0;  // bytes read from the FIFO
    };

    static void* UafSrcBufferThread(void* channel);

    bool allocateBuffers();
    void buildFrameBuffer();
    bool startBufferThread();
    int openPcm();

    void bufferLoop();
    bool bufferPass(BufferRun& run);
    void endFailedBufferPass();
    int fifoRead();

    int pcmWrite();
    int stopIfFailed(int result);
    int playFrame();
    int sndWrite(const int16_t* buf);

    pthread_t bufferThread{};
    bool bufferThreadJoinable = false;  // created and not yet joined; intfMutex
    // 1 from its creation until it has left its loop. Set by its creator: a stop may come before
    // the thread has run.
    std::atomic<int32_t> bufferThreadRunning{0};
    std::unique_ptr<int16_t[]> fifoBuf;     // one FIFO block, 480 x 2, reduced in place to 480 x 1
    std::unique_ptr<int16_t[]> pcmBuf;      // one frame on its way to the PCM
    std::unique_ptr<int16_t[]> silenceBuf;  // a silent period
    FrameBuffer frameBuffer;                // between the two threads
};

}  // namespace uafd
