// SPDX-License-Identifier: Apache-2.0
// The source channel's frame buffer: what its buffer thread and its worker share. It absorbs the
// app's jitter and the difference between the app's and the host's clocks by holding 10 to 15 ms
// of sound, or 20 to 30 ms when the app starves it repeatedly. SSRS (buffer/ssrs.h) does the
// arithmetic; this class has its memory, sizes and lock.
//
// Samples are mono, signed 16-bit, 48 kHz. Nothing is allocated between build() and release().
// Logs under the source's tag, "UAFSRC".
#pragma once

#include <cstdint>
#include <memory>
#include <pthread.h>

#include "buffer/ssrs.h"

namespace uafd {

constexpr int kFifoBlockFrames = 480;  // what the buffer thread writes at a time: 10 ms

// Sizes of the frame buffer in samples: its storage and its target range.
struct FrameBufferSize {
    int storage;
    int depthLow;
    int depthHigh;
};
constexpr FrameBufferSize kSmallFrameBuffer{960, 480, 720};    // 10 to 15 ms
constexpr FrameBufferSize kLargeFrameBuffer{1920, 960, 1440};  // 20 to 30 ms

constexpr unsigned kStatsPasses = 100;      // writes from one statistics check to the next: 1 s
constexpr uint32_t kEnlargeUnderruns = 11;  // underruns between two checks that enlarge

class FrameBuffer {
  public:
    // The result of a write or a read. When SSRS has failed, the result holds the frame buffer's
    // lock until it is destroyed, so that the other thread cannot use the failed frame buffer
    // before the stop of the channel is requested.
    class Result {
      public:
        ~Result();
        Result(const Result&) = delete;
        Result& operator=(const Result&) = delete;
        bool ok() const { return succeeded; }

      private:
        friend class FrameBuffer;
        explicit Result(bool succeeded, pthread_mutex_t* held = nullptr)
            : succeeded(succeeded), held(held) {}

        const bool succeeded;
        pthread_mutex_t* const held;  // null: the lock is released
    };

    // Logs "pthread_mutex_init failed\n" (error), and goes on without a working lock.
    FrameBuffer();
    ~FrameBuffer();
    FrameBuffer(const FrameBuffer&) = delete;
    FrameBuffer& operator=(const FrameBuffer&) = delete;

    // ---- While neither of the two threads uses it ----------------------------------------------

    // The storage, of the larger size; it lives until destruction. False without memory.
    bool allocateStorage();
    // Makes an empty frame buffer of the small size, unless there is one. A failure is only logged
    // (error): every write and read then fails.
    void build();
    // Frees what build made. The storage stays.
    void release();

    // ---- The buffer thread ---------------------------------------------------------------------

    // Appends kFifoBlockFrames samples. A block that does not fit is dropped, which is no failure.
    // `writes` is the number of successful writes that this thread has made before; it determines
    // when the frame buffer is checked and perhaps enlarged. Logs a failed lock or SSRS call
    // (error), and the result of the check (debug).
    Result write(const int16_t* block, unsigned writes);

    // ---- The worker ----------------------------------------------------------------------------

    // Takes the next kPeriodFrames samples, filled up with silence when the app has starved the
    // frame buffer. Logs a failed lock or SSRS call (error).
    Result read(int16_t* frame);

    // ---- A program that uses it on one thread --------------------------------------------------

    // The state of SSRS; null when nothing is built.
    const SSRS_Ctx* context() const { return ssrsCtx; }

  private:
    bool setStorage(const FrameBufferSize& size);
    bool setDepth(const FrameBufferSize& size);
    void checkUnderruns(unsigned writes);
    void enlarge();

    // Held only during SSRS calls and by a Result. A stop request while a Result holds it takes
    // intfMutex, so intfMutex may be taken under this lock, but never the other way round.
    pthread_mutex_t ssrsMutex;
    std::unique_ptr<int16_t[]> ssrsQBuff;  // the storage
    SSRS_Ctx* ssrsCtx = nullptr;           // raw memory; null when released

    // Used by the buffer thread, under the lock.
    uint32_t seenUnderruns = 0;  // at the last check
    bool enlargeTried = false;   // enlarged at most once after each build
};

}  // namespace uafd
