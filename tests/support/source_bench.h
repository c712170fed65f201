// SPDX-License-Identifier: Apache-2.0
// A source channel on one thread: the threads that it creates are noted instead of made, and a test
// runs their bodies itself, the worker's even in the middle of the buffer thread's. Locks, frame
// buffer calls, thread calls, pauses and messages appear in a journal in the order of the calls.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "channel/uaf_src.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_fifo.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_locks.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_new.h"
#include "tests/support/fake_ssrs.h"
#include "tests/support/fake_threads.h"

namespace uafd::source_bench {

constexpr char kFifoPath[] = "/tmp/usbAudioFifoTx";
constexpr char kPcmName[] = "hw:1";
constexpr int kBlockBytes = 1920;
constexpr int kBlockSamples = 480;
constexpr int kFrameSamples = 240;

inline fake_log::Line base(int priority, const std::string& text) {
    return {priority, "UAFCH", text};
}

// What the log holds under the channel's own tag.
inline std::vector<fake_log::Line> ownLines() {
    return fake_log::kSourceLog.lines();
}

// What the base keeps for derived channels lies open to tests.
class OpenSource : public UafSrc {
  public:
    using UafSrc::availChkCnt;
    using UafSrc::fifo;
    using UafSrc::intfMutex;
    using UafSrc::pcmHandle;
    using UafSrc::pcmStallCnt;
    using UafSrc::state;
    using UafSrc::stopDelayCnt;
};

class Test : public fake_alsa::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the channel, with the journal and the log empty afterwards.
    void start();
    void forget();
    // As the buffer thread does.
    void openFifo();
    void runBufferThread();
    void runWorker();
    // Ends the buffer loop after `passes` passes that reach the unlock.
    void stopAfterBlocks(int passes);
    // Asks for the channel's stop in the worker's `pass`-th wait; three more passes follow.
    void switchOffInWait(int pass);
    int count(const std::string& entry) const;
    // The frame buffer's set-up and the PCM's opening appear in the journal too.
    void watchSetUp();
    // A start that fails at a step of the PCM's opening, and its report.
    void failStartAt(const std::string& function, int step);

    std::unique_ptr<OpenSource> source;
    std::vector<std::string> journal;
    FakeLocks locks{journal};      // "lock intf" and "lock ssrs"
    FakeThreads threads{journal};  // "create worker" and "create buffer"
    FakeFifo fifo{journal};
    // What the creation of the buffer thread returns and leaves in errno.
    int createResult = 0;
    int createErrno = 0;
    int buffersCreated = 0;

  private:
    int create(const FakeThreads::Thread& thread);

    int ssrsUnlocks = 0;
    int lastBlock = 0;
    int lastWait = 0;
    int waits = 0;
    FakeThreads::Thread bufferThread{};
};

// A started channel's buffer loop: reads and a frame buffer as the test wants them, and what
// reached the frame buffer.
class FifoTest : public Test {
  protected:
    void SetUp() override;

    // `passes` passes that reach the unlock.
    void runBlocks(int passes);
    // Reads give these results, one after the other, and then whole blocks.
    void readResults(std::vector<int> results);
    // The loop ends in its `yields`-th failed pass.
    void stopAtYield(int yields);
    // The channel's lines that hold this text.
    static int linesWith(const std::string& part);

    std::vector<std::vector<int16_t>> blocks;
    int32_t writeResult = 0;
    SSRS_Stats stats{};
};

}  // namespace uafd::source_bench
