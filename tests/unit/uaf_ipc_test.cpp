// SPDX-License-Identifier: Apache-2.0
// The app IPC service: its start, with every way to fail, and which threads may run after it.
#include "ipc/uaf_ipc.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"
#include "tests/support/ipc_service.h"

namespace uafd {
namespace {

using fake_log::kIpcLog;
using Lines = std::vector<fake_log::Line>;
using Strings = std::vector<std::string>;

class UafIpcTest : public fake_sys::Test {
  protected:
    void SetUp() override { service.hold(); }

    void expectFailure(const Strings& lines, const Strings& closed) {
        EXPECT_FALSE(started);
        Lines expected;
        for (const std::string& line : lines)
            expected.push_back(kIpcLog.error(line));
        EXPECT_EQ(expected, fake_log::lines());
        Strings actual;
        for (const std::string& call : service.calls) {
            if (call.rfind("close", 0) == 0)
                actual.push_back(call);
        }
        EXPECT_EQ(closed, actual);
    }

    // Starts with the hooks as they are.
    void start() { started = ipc.start(); }

    // The first thread, the receiver, is real; the second one is only counted.
    void createReceiverAlone() {
        fake_sys::hooks().pthread_create = [this](pthread_t* id, const pthread_attr_t*,
                                                  void* (*entry)(void*), void* argument) {
            if (++creations == 2)
                return 0;
            const int rc = fake_sys::real::pthread_create(id, nullptr, entry, argument);
            receiver = *id;
            return rc;
        };
    }

    IpcService service;
    UafIpc ipc;
    pthread_t receiver{};
    int creations = 0;
    bool started = false;
};

TEST_F(UafIpcTest, OpensBothSocketsBindsTheOwnPathAndCreatesBothThreads) {
    start();
    EXPECT_TRUE(started);
    EXPECT_EQ((Strings{"socket 1 2 0", "socket 1 2 0", "unlink /tmp/usbAudioUdsIpcTx",
                       "bind 902 1 110", "/tmp/usbAudioUdsIpcTx", "create", "create"}),
              service.calls);
    EXPECT_EQ(Lines{}, fake_log::lines());
}

TEST_F(UafIpcTest, SendingSocketFails) {
    fake_sys::hooks().socket = fake_sys::failing(EMFILE);
    start();
    expectFailure({"socket failed: <-1:24>\n"}, {});
}

TEST_F(UafIpcTest, ReceivingSocketFails) {
    int calls = 0;
    fake_sys::hooks().socket = [&](int, int, int) {
        errno = ENFILE;
        return ++calls == 1 ? IpcService::kTxSocket : -1;
    };
    start();
    expectFailure({"socket failed: <-1:23>"}, {"close 901"});
}

// At a first start nothing is wrong, but log readers expect the line.
TEST_F(UafIpcTest, MissingOldPathIsAnErrorLineOnly) {
    fake_sys::hooks().unlink = fake_sys::failing(ENOENT);
    start();
    EXPECT_TRUE(started);
    EXPECT_EQ((Lines{kIpcLog.error("unlink failed err 2, path does not exist ... ignoring")}),
              fake_log::lines());
}

TEST_F(UafIpcTest, OldPathThatStaysFails) {
    fake_sys::hooks().unlink = fake_sys::failing(EISDIR);
    start();
    expectFailure({"unlink failed, error: 21"}, {"close 902", "close 901"});
}

TEST_F(UafIpcTest, BindFails) {
    fake_sys::hooks().bind = fake_sys::failing(EADDRINUSE);
    start();
    expectFailure({"bind failed, error: 98\n"}, {"close 902", "close 901"});
}

TEST_F(UafIpcTest, ReceiveThreadFails) {
    int calls = 0;
    fake_sys::hooks().pthread_create = [&](auto...) {
        calls++;
        errno = ENOMEM;
        return EAGAIN;
    };
    start();
    EXPECT_EQ(1, calls);
    expectFailure({"creating IPC RX thread failed: <11:12:Cannot allocate memory>\n"},
                  {"close 902", "close 901"});
}

TEST_F(UafIpcTest, TransmitThreadFails) {
    int calls = 0;
    fake_sys::hooks().pthread_create = [&](auto...) {
        errno = ENOMEM;
        return ++calls == 1 ? 0 : EAGAIN;
    };
    start();
    expectFailure({"creating IPC TX thread failed: <11:12:Cannot allocate memory>\n"},
                  {"close 902", "close 901"});
}

TEST_F(UafIpcTest, FailedClosesAreLoggedAndForgotten) {
    fake_sys::hooks().bind = fake_sys::failing(EACCES);
    fake_sys::hooks().close = [this](int fd) {
        service.calls.push_back("close " + std::to_string(fd));
        errno = fd == IpcService::kRxSocket ? EIO : EINTR;
        return -1;
    };
    start();
    expectFailure(
        {"bind failed, error: 13\n", "closing IPC rx socket failed: <-1:5:Input/output error>\n",
         "closing IPC tx socket failed: <-1:4:Interrupted system call>\n"},
        {"close 902", "close 901"});
    service.calls.clear();
    fake_log::clear();
    fake_sys::hooks().socket = fake_sys::failing(EMFILE);
    start();
    expectFailure({"socket failed: <-1:24>\n"}, {});
}

TEST_F(UafIpcTest, FreshServiceHasNothingToClose) {
    std::vector<int> closed;
    fake_sys::hooks().close = [&](int fd) {
        closed.push_back(fd);
        return 0;
    };
    fake_sys::hooks().socket = [](int, int, int) { return -1; };
    start();
    EXPECT_EQ(std::vector<int>{}, closed);
}

TEST_F(UafIpcTest, DestructorClosesNothing) {
    auto doomed = std::make_unique<UafIpc>();
    EXPECT_TRUE(doomed->start());
    service.calls.clear();
    doomed.reset();
    EXPECT_EQ(Strings{}, service.calls);
}

// When the start releases the receive thread, it finds the service running.
TEST_F(UafIpcTest, ServiceRunsBeforeItsReceiveThreadMayBegin) {
    const pthread_t starter = pthread_self();
    int receives = 0;
    bool joined = false;
    createReceiverAlone();
    fake_sys::hooks().pthread_mutex_unlock = [&](pthread_mutex_t* mutex) {
        const int rc = fake_sys::real::pthread_mutex_unlock(mutex);
        if (pthread_equal(starter, pthread_self()) != 0 && creations == 2 && !joined) {
            joined = true;
            fake_sys::real::pthread_join(receiver, nullptr);
        }
        return rc;
    };
    fake_sys::hooks().open = [](const char*, int) { return 77; };
    fake_sys::hooks().recvfrom = [&](auto...) -> ssize_t {
        receives++;
        errno = EBADF;
        return -1;
    };
    start();
    EXPECT_TRUE(started);
    EXPECT_TRUE(joined);
    EXPECT_EQ(1, receives);
}

// The exit path destroys the instance, so a thread that already exists must not have begun.
TEST_F(UafIpcTest, ReceiveThreadOfAFailedStartNeverTouchesTheInstance) {
    static std::atomic<bool> running;
    static void* (*receiveEntry)(void*);
    running = false;
    int calls = 0;
    fake_sys::hooks().pthread_create = [&](pthread_t* id, const pthread_attr_t*,
                                           void* (*entry)(void*), void* argument) {
        if (++calls == 2) {
            while (!running)
                sched_yield();
            errno = EAGAIN;
            return EAGAIN;
        }
        receiveEntry = entry;
        const int rc = fake_sys::real::pthread_create(
            id, nullptr,
            [](void* instance) {
                running = true;
                return receiveEntry(instance);
            },
            argument);
        receiver = *id;
        return rc;
    };
    fake_sys::hooks().open = [](const char*, int) { return -1; };
    auto doomed = std::make_unique<UafIpc>();
    EXPECT_FALSE(doomed->start());
    doomed.reset();
    fake_sys::real::pthread_join(receiver, nullptr);
    EXPECT_EQ((Lines{kIpcLog.error("creating IPC TX thread failed: "
                                   "<11:11:Resource temporarily unavailable>\n")}),
              fake_log::lines());
}

TEST_F(UafIpcTest, ReceiveThreadOfAGoodStartRuns) {
    createReceiverAlone();
    fake_sys::hooks().open = fake_sys::failing(ENODEV);
    start();
    EXPECT_TRUE(started);
    fake_sys::real::pthread_join(receiver, nullptr);
    EXPECT_EQ((Lines{kIpcLog.debug("rxLoop: starting\n"),
                     kIpcLog.error("rxLoop: opening /dev/uac_user failed: <-1:19>\n")}),
              fake_log::lines());
}

}  // namespace
}  // namespace uafd
