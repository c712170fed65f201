// SPDX-License-Identifier: Apache-2.0
#include "tests/support/source_bench.h"

#include <cerrno>
#include <fcntl.h>

namespace source_bench {

using fake_log::UAFSRC;

void Test::SetUp() {
    fake_alsa::Test::SetUp();
    fake_ssrs::reset();
    fake_new::reset();
    fake_sys::hooks().pthread_mutex_init = [this](pthread_mutex_t* mutex,
                                                  const pthread_mutexattr_t* attributes) {
        mutexes.push_back(mutex);
        return fake_sys::real::pthread_mutex_init(mutex, attributes);
    };
    source = std::make_unique<OpenSource>();
    ASSERT_EQ(2U, mutexes.size());
    source->setDevName(FIFO, PCM);
    hookMutexes();
    hookThreads();
    hookFifo();
    forget();
}

void Test::TearDown() {
    source.reset();
    fake_ipc::clear();
    fake_ssrs::reset();
    fake_new::reset();
    fake_alsa::Test::TearDown();
}

// Where a call on `mutex` goes in the journal; nowhere when it is none of the source's.
std::string Test::nameOf(const pthread_mutex_t* mutex) const {
    return mutex == mutexes[0] ? " intf" : mutex == mutexes[1] ? " ssrs" : "";
}

void Test::hookMutexes() {
    fake_sys::hooks().pthread_mutex_lock = [this](pthread_mutex_t* mutex) {
        if (nameOf(mutex).empty()) {
            return fake_sys::real::pthread_mutex_lock(mutex);
        }
        journal.push_back("lock" + nameOf(mutex));
        return mutex == mutexes[1] ? ssrsLockResult : 0;
    };
    fake_sys::hooks().pthread_mutex_trylock = [this](pthread_mutex_t* mutex) {
        journal.push_back("trylock" + nameOf(mutex));
        return 0;
    };
    fake_sys::hooks().pthread_mutex_unlock = [this](pthread_mutex_t* mutex) {
        if (nameOf(mutex).empty()) {
            return fake_sys::real::pthread_mutex_unlock(mutex);
        }
        journal.push_back("unlock" + nameOf(mutex));
        if (mutex != mutexes[1]) {
            return 0;
        }
        if (++ssrsUnlocks == lastBlock) {
            source->uafStop();
        }
        return ssrsUnlockResult;
    };
}

void Test::hookThreads() {
    fake_sys::hooks().pthread_create = [this](pthread_t* id, const pthread_attr_t*,
                                              void* (*entry)(void*), void* argument) {
        EXPECT_EQ(static_cast<UafSrc*>(source.get()), argument);
        const bool worker = entry == &UafCh::ChThread;
        journal.push_back(worker ? "create worker" : "create buffer");
        errno = createErrno;
        if (!worker && createResult != 0) {
            return createResult;
        }
        bufferEntry = worker ? bufferEntry : entry;
        *id = static_cast<pthread_t>(++(worker ? workersCreated : buffersCreated));
        return 0;
    };
    fake_sys::hooks().pthread_join = [this](pthread_t, void**) {
        journal.push_back("join");
        return 0;
    };
    // There is no thread behind the number.
    fake_sys::hooks().pthread_kill = [this](pthread_t id, int) {
        EXPECT_EQ(static_cast<pthread_t>(buffersCreated), id);
        journal.push_back("signal");
        return ESRCH;
    };
    fake_sys::hooks().nanosleep = [this](const timespec* pause, timespec*) {
        journal.push_back("sleep");
        sleptNs += pause->tv_sec * 1000000000L + pause->tv_nsec;
        return 0;
    };
    fake_sys::hooks().sched_yield = [this] {
        journal.push_back("yield");
        return 0;
    };
}

void Test::hookFifo() {
    fake_sys::hooks().open = [this](const char* path, int flags) {
        journal.push_back("open " + std::string(path) + " " + std::to_string(flags));
        return openResult;
    };
    fake_sys::hooks().read = [this](int fd, void* buf, size_t size) {
        EXPECT_EQ(openResult, fd);
        EXPECT_EQ(static_cast<size_t>(BLOCK_BYTES), size);
        return onRead(static_cast<int16_t*>(buf), size);
    };
    fake_sys::hooks().close = [this](int fd) {
        journal.push_back("close " + std::to_string(fd));
        return 0;
    };
    fake_sys::hooks().fcntl = [this](int, int command, long argument) {
        if (command == F_SETPIPE_SZ) {
            journal.push_back("capacity " + std::to_string(static_cast<int>(argument)));
        }
        return 4096;
    };
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
    ASSERT_TRUE(source->fifo.openEnd(FIFO, O_RDONLY, BLOCK_BYTES, "UAFSRC"));
    forget();
}

void Test::runBufferThread() {
    ASSERT_NE(nullptr, bufferEntry);
    EXPECT_EQ(nullptr, bufferEntry(static_cast<UafSrc*>(source.get())));
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
    const auto report = UAFSRC.error("error at uafStart@" + std::to_string(step) + ": rc=-19\n");
    EXPECT_EQ(1, fake_log::count(report)) << function;
    EXPECT_EQ(std::vector<fake_ipc::Message>{}, fake_ipc::messages());
}

}  // namespace source_bench
