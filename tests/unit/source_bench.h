// SPDX-License-Identifier: Apache-2.0
// A source channel on one thread: the threads that it creates are only noted, and a test runs their
// functions itself, the worker's even in the middle of the buffer thread's. Locks, frame buffer
// calls, thread calls, pauses and messages appear in a journal in the order of the calls.
#pragma once

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "channel/uaf_src.h"
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_ipc.h"
#include "tests/support/fake_locks.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_ssrs.h"
#include "tests/support/fake_threads.h"
#include "tests/unit/fake_fifo.h"
#include "tests/unit/fake_new.h"

namespace uafd::source_bench {

constexpr char kFifoPath[] = "/tmp/usbAudioFifoTx";
constexpr char kPcmName[] = "hw:1";
constexpr int kBlockSamples = 480;
constexpr int kFrameSamples = 240;

// The log's lines with the channel's own tag.
inline std::vector<fake_log::Line> ownLines() {
    return fake_log::kSourceLog.lines();
}

// Tests can access the base class's protected members.
class OpenSource : public UafSrc {
  public:
    using UafSrc::availChkCnt;
    using UafSrc::fifo;
    using UafSrc::pcmHandle;
    using UafSrc::pcmStallCnt;
    using UafSrc::state;
    using UafSrc::stopDelayCnt;
};

class Test : public fake_sys::Test {
  protected:
    void SetUp() override {
        memory.install();
        locks.install();
        locks.watchNew({"intf", "ssrs"});
        locks.onCall = [this](const std::string& entry) {
            if (entry == "unlock ssrs" && ++ssrsUnlocks == lastBlock) {
                source->uafStop();
            }
        };
        threads.install();
        threads.nameOf = [](const FakeThreads::Thread& thread) {
            return thread.entry == &UafCh::ChThread ? "worker" : "buffer";
        };
        threads.onCreate = [this](const FakeThreads::Thread& thread) { return create(thread); };
        threads.onSignal = [this](pthread_t id) {
            EXPECT_EQ(bufferThread.id, id);
            return ESRCH;
        };
        fifo.install(2 * kBlockSamples * sizeof(int16_t));
        source = std::make_unique<OpenSource>();
        source->setDevName(kFifoPath, kPcmName);
        forget();
    }
    void TearDown() override {
        source.reset();
        fake_sys::Test::TearDown();
    }

    // Starts the channel, then empties the journal and the log.
    void start() {
        ASSERT_EQ(0, source->intfUpdate(true));
        forget();
    }
    void forget() {
        journal.clear();
        fake_log::clear();
        fake_alsa::clearCalls();
        fake_ipc::clear();
        fake_ipc::onMessage() = [this](const fake_ipc::Message& message) {
            journal.push_back("message " + std::to_string(message.first) + "," +
                              std::to_string(message.second));
        };
    }
    void runBufferThread() {
        ASSERT_NE(nullptr, bufferThread.entry);
        EXPECT_EQ(nullptr, bufferThread.run());
    }
    void runWorker() { EXPECT_EQ(nullptr, UafCh::ChThread(static_cast<UafCh*>(source.get()))); }
    // The buffer loop will end after `passes` passes that reach the unlock.
    void stopAfterBlocks(int passes) { lastBlock = ssrsUnlocks + passes; }
    int count(const std::string& entry) const {
        return static_cast<int>(std::count(journal.begin(), journal.end(), entry));
    }
    // Makes a start that fails at a step of the PCM's opening; the start must report that step.
    void failStartAt(const std::string& function, int step) {
        forget();
        fake_alsa::answerAt(function, 1, -ENODEV);
        EXPECT_EQ(-1, source->intfUpdate(true)) << function;
        EXPECT_EQ(UAFCH_STOPPED, source->state);
        const auto report =
            fake_log::kSourceLog.error("error at uafStart@" + std::to_string(step) + ": rc=-19\n");
        EXPECT_EQ(1, fake_log::count(report)) << function;
        EXPECT_EQ(std::vector<fake_ipc::Message>{}, fake_ipc::messages());
    }
    // From now on the frame buffer's set-up and the PCM's opening appear in the journal, too.
    void watchSetUp() {
        fake_ssrs::hooks().SSRS_InitContext = [this](SSRS_Ctx* ctx) {
            journal.push_back("init");
            return fake_ssrs::real::SSRS_InitContext(ctx);
        };
        fake_ssrs::hooks().SSRS_SetFrameSize = [this](SSRS_Ctx* ctx, int32_t n) {
            journal.push_back("frame " + std::to_string(n));
            return fake_ssrs::real::SSRS_SetFrameSize(ctx, n);
        };
        fake_ssrs::hooks().SSRS_SetQBuff = [this](SSRS_Ctx* ctx, int16_t* storage, int32_t len) {
            journal.push_back("storage " + std::to_string(len));
            return fake_ssrs::real::SSRS_SetQBuff(ctx, storage, len);
        };
        fake_ssrs::hooks().SSRS_SetQDepth = [this](SSRS_Ctx* ctx, int32_t low, int32_t high) {
            journal.push_back("depth " + std::to_string(low) + "-" + std::to_string(high));
            return fake_ssrs::real::SSRS_SetQDepth(ctx, low, high);
        };
        fake_alsa::hooks().before = [this](const std::string& call) {
            if (call.rfind("snd_pcm_open", 0) == 0 || call.rfind("snd_pcm_status", 0) == 0) {
                journal.push_back(call);
            }
        };
    }

    FakeNew memory;
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
    int create(const FakeThreads::Thread& thread) {
        EXPECT_EQ(static_cast<UafSrc*>(source.get()), thread.argument);
        if (thread.entry == &UafCh::ChThread) {
            return 0;
        }
        errno = createErrno;
        if (createResult == 0) {
            bufferThread = thread;
            ++buffersCreated;
        }
        return createResult;
    }

    int ssrsUnlocks = 0;
    int lastBlock = 0;
    FakeThreads::Thread bufferThread{};
};

// The buffer loop of a started channel, with a scripted FIFO and frame buffer, and a record of what
// the frame buffer got.
class FifoTest : public Test {
  protected:
    void SetUp() override {
        Test::SetUp();
        fake_ssrs::hooks().SSRS_Write = [this](SSRS_Ctx*, const int16_t* data, int32_t n) {
            journal.push_back("write");
            blocks.emplace_back(data, data + n);
            return writeResult;
        };
        fake_ssrs::hooks().SSRS_StatsGet = [this](const SSRS_Ctx*, SSRS_Stats* copy) {
            journal.push_back("stats");
            *copy = stats;
            return 0;
        };
        start();
    }

    // Runs the loop for `passes` passes that reach the unlock.
    void runBlocks(int passes) {
        stopAfterBlocks(passes);
        runBufferThread();
    }
    // The number of the channel's lines that contain this text.
    static int linesWith(const std::string& part) {
        const std::vector<fake_log::Line> lines = ownLines();
        return static_cast<int>(std::count_if(
            lines.begin(), lines.end(),
            [&](const fake_log::Line& line) { return line.text.find(part) != std::string::npos; }));
    }

    std::vector<std::vector<int16_t>> blocks;
    int32_t writeResult = 0;
    SSRS_Stats stats{};
};

}  // namespace uafd::source_bench
