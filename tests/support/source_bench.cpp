// SPDX-License-Identifier: Apache-2.0
#include "tests/support/source_bench.h"

#include <cerrno>
#include <fcntl.h>

namespace uafd::source_bench {

using fake_log::kSourceLog;

void Test::SetUp() {
    fake_new::reset();
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
    fifo.install(kBlockBytes);
    source = std::make_unique<OpenSource>();
    source->setDevName(kFifoPath, kPcmName);
    forget();
}

void Test::TearDown() {
    source.reset();
    fake_new::reset();
    fake_sys::Test::TearDown();
}

int Test::create(const FakeThreads::Thread& thread) {
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

void Test::start() {
    ASSERT_EQ(0, source->intfUpdate(true));
    forget();
}

void Test::forget() {
    journal.clear();
    fake_log::clear();
    fake_alsa::clearCalls();
    fake_ipc::clear();
    fake_ipc::onMessage() = [this](const fake_ipc::Message& message) {
        journal.push_back("message " + std::to_string(message.first) + "," +
                          std::to_string(message.second));
    };
}

void Test::openFifo() {
    ASSERT_TRUE(source->fifo.openEnd(kFifoPath, O_RDONLY, kBlockBytes, "UAFSRC"));
    forget();
}

void Test::runBufferThread() {
    ASSERT_NE(nullptr, bufferThread.entry);
    EXPECT_EQ(nullptr, bufferThread.run());
}

void Test::runWorker() {
    EXPECT_EQ(nullptr, UafCh::ChThread(static_cast<UafCh*>(source.get())));
}

void Test::stopAfterBlocks(int passes) {
    lastBlock = ssrsUnlocks + passes;
}

void Test::switchOffInWait(int pass) {
    lastWait = pass;
    waits = 0;
    fake_alsa::hooks().before = [this](const std::string& call) {
        if (call.compare(0, 12, "snd_pcm_wait") == 0 && ++waits == lastWait) {
            source->intfUpdate(false);
        }
    };
}

int Test::count(const std::string& entry) const {
    return static_cast<int>(std::count(journal.begin(), journal.end(), entry));
}

void Test::watchSetUp() {
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

void Test::failStartAt(const std::string& function, int step) {
    forget();
    fake_alsa::answerAt(function, 1, -ENODEV);
    EXPECT_EQ(-1, source->intfUpdate(true)) << function;
    EXPECT_EQ(UAFCH_STOPPED, source->state);
    const auto report =
        kSourceLog.error("error at uafStart@" + std::to_string(step) + ": rc=-19\n");
    EXPECT_EQ(1, fake_log::count(report)) << function;
    EXPECT_EQ(std::vector<fake_ipc::Message>{}, fake_ipc::messages());
}

void FifoTest::SetUp() {
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

void FifoTest::runBlocks(int passes) {
    stopAfterBlocks(passes);
    runBufferThread();
}

void FifoTest::readResults(std::vector<int> results) {
    fifo.onRead = [results, next = size_t{0}](int16_t*, size_t size) mutable {
        return next < results.size() ? results[next++] : static_cast<ssize_t>(size);
    };
}

int FifoTest::linesWith(const std::string& part) {
    const std::vector<fake_log::Line> lines = ownLines();
    return static_cast<int>(std::count_if(
        lines.begin(), lines.end(),
        [&](const fake_log::Line& line) { return line.text.find(part) != std::string::npos; }));
}

void FifoTest::stopAtYield(int yields) {
    threads.onYield = [this, left = yields]() mutable {
        if (--left == 0) {
            source->uafStop();
        }
    };
}

}  // namespace uafd::source_bench
