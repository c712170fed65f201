// SPDX-License-Identifier: Apache-2.0
// A source channel on one thread: the threads that it creates are only noted, and a test runs their
// functions itself, the worker's even in the middle of the buffer thread's. Locks, frame buffer
// calls, thread calls, pauses and messages appear in a journal in the order of the calls.
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

// The log's lines with the channel's own tag.
inline std::vector<fake_log::Line> ownLines() {
    return fake_log::kSourceLog.lines();
}

// Tests can access the base class's protected members.
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

class Test : public fake_sys::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the channel, then empties the journal and the log.
    void start();
    void forget();
    // Opens the FIFO as the buffer thread does.
    void openFifo();
    void runBufferThread();
    void runWorker();
    // The buffer loop will end after `passes` passes that reach the unlock.
    void stopAfterBlocks(int passes);
    // The worker's `pass`-th wait will request the channel's stop; three more passes follow.
    void switchOffInWait(int pass);
    int count(const std::string& entry) const;
    // From now on the frame buffer's set-up and the PCM's opening appear in the journal, too.
    void watchSetUp();
    // Makes a start that fails at a step of the PCM's opening; the start must report that step.
    void failStartAt(const std::string& function, int step);

    std::unique_ptr<OpenSource> source;
    std::vector<std::string> journal;
    FakeLocks locks{journal};      // "lock intf" and "lock ssrs"
    FakeThreads threads{journal};  // "create worker" and "create buffer"
    FakeFifo fifo{journal};
    // The result of the buffer thread's creation, and its errno.
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

// The buffer loop of a started channel, with a scripted FIFO and frame buffer, and a record of what
// the frame buffer got.
class FifoTest : public Test {
  protected:
    void SetUp() override;

    // Runs the loop for `passes` passes that reach the unlock.
    void runBlocks(int passes);
    // Reads return these results, one after the other, and then whole blocks.
    void readResults(std::vector<int> results);
    // The loop will end in its `yields`-th failed pass.
    void stopAtYield(int yields);
    // The number of the channel's lines that contain this text.
    static int linesWith(const std::string& part);

    std::vector<std::vector<int16_t>> blocks;
    int32_t writeResult = 0;
    SSRS_Stats stats{};
};

}  // namespace uafd::source_bench
