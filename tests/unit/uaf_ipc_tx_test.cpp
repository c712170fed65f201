// SPDX-License-Identifier: Apache-2.0
// The way to the app: the transmit thread, what it does when the queue fails, and its retries.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "ipc/uaf_ipc.h"
#include "tests/support/fake_locks.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"
#include "tests/support/ipc_service.h"

namespace uafd {
namespace {

using fake_log::kIpcLog;
using ipc_service::bytesOf;
using Lines = std::vector<fake_log::Line>;
using Message = IpcService::Message;
using Messages = std::vector<Message>;
using Pauses = std::vector<std::pair<long, long>>;  // seconds, nanoseconds
using Strings = std::vector<std::string>;

const fake_log::Line kStartLine = kIpcLog.debug("txLoop: starting\n");
const fake_log::Line kEndLine = kIpcLog.error("txLoop: conditional wait failed: 22\n");

class UafIpcTxTest : public fake_sys::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(service.start());
        service.take();
        fake_log::clear();
        fake_sys::reset();
        locks.install();
        locks.watch(IpcService::queue());
        locks.answer("wait", EINVAL);
        fake_sys::hooks().nanosleep = [this](const timespec* pause, timespec*) {
            pauses.emplace_back(pause->tv_sec, pause->tv_nsec);
            return 0;
        };
    }

    void TearDown() override {
        fake_sys::reset();
        service.take();
        fake_sys::Test::TearDown();
    }

    // The log between the transmit loop's first and last line.
    Lines linesInside() { return ipc_service::linesBetween(kStartLine, kEndLine); }

    // Answers every send and records the bytes.
    void answerSends(std::function<ssize_t(size_t size)> answer) {
        fake_sys::hooks().sendto = [this, answer](int fd, const void* data, size_t size, int flags,
                                                  const sockaddr* to, socklen_t toLength) {
            EXPECT_EQ(IpcService::kTxSocket, fd);
            EXPECT_EQ(0, flags);
            EXPECT_EQ(110U, toLength);
            EXPECT_EQ(AF_UNIX, to->sa_family);
            EXPECT_STREQ("/tmp/usbAudioUdsIpcRx",
                         reinterpret_cast<const sockaddr_un*>(to)->sun_path);
            sends.emplace_back(static_cast<const char*>(data), size);
            return answer(size);
        };
    }

    // The first send fails with this error, all others succeed.
    void failFirstSend(int error) {
        answerSends([this, error](size_t size) -> ssize_t {
            errno = error;
            return sends.size() == 1 ? -1 : static_cast<ssize_t>(size);
        });
    }
    void acceptSends() {
        answerSends([](size_t size) { return static_cast<ssize_t>(size); });
    }

    IpcService service;
    Strings journal;
    FakeLocks locks{journal};
    Strings sends;
    Pauses pauses;
};

TEST_F(UafIpcTxTest, ConstantMessagesAreTheUsbStates) {
    EXPECT_EQ(bytesOf(0, 1), std::string(reinterpret_cast<const char*>(&UafIpc::UafIpcConnectedMsg),
                                         sizeof(UsbAudioMsgT)));
    EXPECT_EQ(bytesOf(0, 0),
              std::string(reinterpret_cast<const char*>(&UafIpc::UafIpcDisconnectedMsg),
                          sizeof(UsbAudioMsgT)));
}

TEST_F(UafIpcTxTest, EveryMessageTravelsAsItsEightBytesInOrder) {
    const Messages messages = {{0, 1},      {0, 0},      {1, 1}, {1, 0}, {2, 1}, {2, 0},
                               {3, 0xFFFF}, {4, 0x8000}, {5, 0}, {5, 1}, {6, 0}, {6, 1}};
    Strings expected;
    for (const auto& [type, data] : messages) {
        UafIpc::queueMsg({type, data});
        expected.push_back(bytesOf(type, data));
    }
    acceptSends();
    service.runTx();
    EXPECT_EQ(expected, sends);
    EXPECT_EQ(std::string("\3\0\0\0\xFF\xFF\0\0", 8), sends[6]);
    EXPECT_EQ(Lines{}, linesInside());
}

TEST_F(UafIpcTxTest, TransmitThreadThatCannotLockEnds) {
    locks.answer("lock", EINVAL, 1);
    service.runTx();
    EXPECT_EQ((Lines{kStartLine, kIpcLog.error("txLoop: lock failed: 22\n")}), fake_log::lines());
}

TEST_F(UafIpcTxTest, TransmitThreadThatCannotLockAgainEndsAfterTheSend) {
    UafIpc::queueMsg({3, 1});
    UafIpc::queueMsg({3, 2});
    acceptSends();
    locks.answer("lock", EINVAL, 2);
    service.runTx();
    EXPECT_EQ((Strings{bytesOf(3, 1)}), sends);
    EXPECT_EQ((Lines{kStartLine, kIpcLog.error("txLoop: lock failed: 22\n")}), fake_log::lines());
}

TEST_F(UafIpcTxTest, FailedWaitUnlocksAndEnds) {
    service.runTx();
    EXPECT_EQ((Lines{kStartLine, kEndLine}), fake_log::lines());
    fake_log::clear();
    locks.answer("unlock", EPERM, 1);
    service.runTx();
    EXPECT_EQ((Lines{kStartLine, kEndLine, kIpcLog.error("txLoop: unlock failed: 1\n")}),
              fake_log::lines());
}

// A condition may wake up without a broadcast.
TEST_F(UafIpcTxTest, WakeUpWithoutAMessageWaitsAgain) {
    locks.answer("wait", EINVAL, 3);
    service.runTx();
    EXPECT_EQ((Strings{"lock", "wait", "wait", "wait", "unlock"}), journal);
    EXPECT_EQ(Lines{}, linesInside());
}

TEST_F(UafIpcTxTest, FailedUnlockEndsAfterTheMessageWasSent) {
    UafIpc::queueMsg({3, 1});
    acceptSends();
    locks.answer("unlock", EPERM, 1);
    service.runTx();
    EXPECT_EQ((Strings{bytesOf(3, 1)}), sends);
    EXPECT_EQ((Lines{kStartLine, kIpcLog.error("txLoop: unlock failed: 1\n")}), fake_log::lines());
}

// A send to a missing app is retried for minutes; a producer must not wait for it.
TEST_F(UafIpcTxTest, ProducersAreFreeDuringASend) {
    UafIpc::queueMsg({3, 1});
    answerSends([](size_t size) {
        static bool queued = false;
        if (!queued)
            UafIpc::queueMsg({4, 2});
        queued = true;
        return static_cast<ssize_t>(size);
    });
    service.runTx();
    EXPECT_EQ((Strings{bytesOf(3, 1), bytesOf(4, 2)}), sends);
}

// A start discards the list but keeps its count.
TEST_F(UafIpcTxTest, CountWithoutMessagesIsReportedByTheTransmitThread) {
    void* lost = nullptr;  // the start loses this
    fake_sys::hooks().malloc = [&](size_t size) { return lost = fake_sys::real::malloc(size); };
    UafIpc::queueMsg({3, 1});
    fake_sys::hooks().malloc = nullptr;
    service.start();
    locks.answer("lock", EINVAL, 3);
    service.runTx();
    EXPECT_EQ((Lines{kStartLine, kIpcLog.error("txLoop: dequeue returned: NULL\n"),
                     kIpcLog.error("txLoop: dequeue returned: NULL\n"),
                     kIpcLog.error("txLoop: lock failed: 22\n")}),
              fake_log::lines());
    fake_log::clear();
    locks.answer("unlock", EPERM, 1);
    service.runTx();
    EXPECT_EQ((Lines{kStartLine, kIpcLog.error("txLoop: dequeue returned: NULL\n"),
                     kIpcLog.error("txLoop: unlock failed: 1\n")}),
              fake_log::lines());
    IpcService::renewQueue();
    free(lost);
}

TEST_F(UafIpcTxTest, PartialSendsGoOnBehindTheBytesThatWent) {
    UafIpc::queueMsg({0x44434241, 0x48474645});
    answerSends([this](size_t size) { return static_cast<ssize_t>(std::min(sends.size(), size)); });
    service.runTx();
    EXPECT_EQ((Strings{"ABCDEFGH", "BCDEFGH", "DEFGH", "GH"}), sends);
    EXPECT_EQ(Lines{}, linesInside());
}

TEST_F(UafIpcTxTest, MissingAppIsTriedTwentyTimesEveryFiveSecondsForEachMessage) {
    UafIpc::queueMsg({3, 1});
    UafIpc::queueMsg({3, 2});
    answerSends([](size_t) -> ssize_t {
        errno = ENOENT;
        return -1;
    });
    service.runTx();
    Strings expected(20, bytesOf(3, 1));
    expected.insert(expected.end(), 20, bytesOf(3, 2));
    EXPECT_EQ(expected, sends);
    EXPECT_EQ((Pauses(40, {5, 0})), pauses);
    EXPECT_EQ(Lines{}, linesInside());
}

TEST_F(UafIpcTxTest, AppThatAppearsGetsTheMessage) {
    UafIpc::queueMsg({3, 1});
    answerSends([this](size_t size) -> ssize_t {
        errno = ENOENT;
        return sends.size() < 20 ? -1 : static_cast<ssize_t>(size);
    });
    service.runTx();
    EXPECT_EQ(20U, sends.size());
    EXPECT_EQ(19U, pauses.size());
    EXPECT_EQ(Lines{}, linesInside());
}

TEST_F(UafIpcTxTest, SendsWithoutResultAreTriedTwentyTimesWithoutAPause) {
    UafIpc::queueMsg({3, 1});
    answerSends([](size_t) { return 0; });
    service.runTx();
    EXPECT_EQ(Strings(20, bytesOf(3, 1)), sends);
    EXPECT_TRUE(pauses.empty());
    EXPECT_EQ(Lines{}, linesInside());
}

TEST_F(UafIpcTxTest, InterruptedPauseGoesOnWithWhatIsLeft) {
    fake_sys::hooks().nanosleep = [&](const timespec* pause, timespec* left) {
        pauses.emplace_back(pause->tv_sec, pause->tv_nsec);
        *left = {3 - static_cast<long>(pauses.size()), 250};
        errno = EINTR;
        return pauses.size() < 3 ? -1 : 0;
    };
    UafIpc::queueMsg({3, 1});
    failFirstSend(ENOENT);
    service.runTx();
    EXPECT_EQ((Pauses{{5, 0}, {2, 250}, {1, 250}}), pauses);
}

TEST_F(UafIpcTxTest, PauseThatFailsOtherwiseIsNotRepeated) {
    int calls = 0;
    fake_sys::hooks().nanosleep = [&](const timespec*, timespec*) {
        calls++;
        errno = EINVAL;
        return -1;
    };
    UafIpc::queueMsg({3, 1});
    failFirstSend(ENOENT);
    service.runTx();
    EXPECT_EQ(1, calls);
}

TEST_F(UafIpcTxTest, AnyOtherErrorDropsTheMessageAndTheNextIsSent) {
    UafIpc::queueMsg({1, 0});
    UafIpc::queueMsg({3, 2});
    failFirstSend(ECONNREFUSED);
    service.runTx();
    EXPECT_EQ((Strings{bytesOf(1, 0), bytesOf(3, 2)}), sends);
    EXPECT_EQ((Lines{kIpcLog.error("sendMsg failed: error: <-1:111>; bytes: 0; attempts: <1:0>; "
                                   "data: <0x00000001:0x00000000>\n")}),
              linesInside());
}

TEST_F(UafIpcTxTest, DropCountsBytesSendsAndRetries) {
    UafIpc::queueMsg({4, 0xFFFF});
    answerSends([this](size_t) -> ssize_t {
        const ssize_t results[] = {3, 0, -1, 2, -1};
        const size_t step = sends.size() - 1;
        errno = step == 2 ? ENOENT : EAGAIN;
        return results[step];
    });
    service.runTx();
    EXPECT_EQ((Lines{kIpcLog.error("sendMsg failed: error: <-1:11>; bytes: 5; attempts: <5:2>; "
                                   "data: <0x00000004:0x0000FFFF>\n")}),
              linesInside());
    EXPECT_EQ(1U, pauses.size());
}

// Everything is real except the app: each producer's messages arrive in its order, and every
// message that does not arrive was logged as overwritten.
TEST_F(UafIpcTxTest, ManyProducersAndTheRealTransmitThread) {
    constexpr uint32_t producers = 4, each = 2000, sentinel = 0xE4D, loopLines = 2;
    fake_sys::reset();
    Messages sent;
    bool ended = false;
    fake_sys::hooks().sendto = [&](int, const void* data, size_t size, int, const sockaddr*,
                                   socklen_t) {
        UsbAudioMsgT msg{};
        memcpy(&msg, data, sizeof msg);
        ended = msg.type == sentinel;
        sent.emplace_back(msg.type, msg.data);
        return static_cast<ssize_t>(size);
    };
    fake_sys::hooks().pthread_cond_wait = [&](pthread_cond_t* condition, pthread_mutex_t* mutex) {
        return ended ? EINVAL : fake_sys::real::pthread_cond_wait(condition, mutex);
    };
    std::thread transmitter([this] { service.runTx(); });
    std::vector<std::thread> threads;
    for (uint32_t type = 1; type <= producers; type++) {
        threads.emplace_back([type] {
            for (uint32_t i = 0; i < each; i++)
                UafIpc::queueMsg({type, i});
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    UafIpc::queueMsg({sentinel, 0});
    transmitter.join();

    std::map<uint32_t, uint32_t> next;
    for (const auto& [type, data] : sent) {
        EXPECT_GE(data, next[type]);
        next[type] = data + 1;
    }
    EXPECT_EQ(producers * each + 1 + loopLines, sent.size() + fake_log::lines().size());
}

}  // namespace
}  // namespace uafd
