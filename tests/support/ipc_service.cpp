// SPDX-License-Identifier: Apache-2.0
#include "tests/support/ipc_service.h"

#include <cerrno>
#include <cstring>
#include <new>

#include <gtest/gtest.h>
#include <sys/socket.h>

namespace uafd {
namespace {

// Gives access to the service's queue.
struct OpenIpc : UafIpc {
    using UafIpc::msgQueue;
};

}  // namespace

void IpcService::renewQueue() {
    new (&OpenIpc::msgQueue) MsgQueue;
}

const MsgQueue& IpcService::queue() {
    return OpenIpc::msgQueue;
}

void IpcService::hold() {
    fake_sys::Hooks& hooks = fake_sys::hooks();
    hooks.socket = [this](int domain, int type, int protocol) {
        const int fd = ++sockets == 1 ? kTxSocket : kRxSocket;
        note("socket", domain, type, protocol);
        return fd;
    };
    hooks.unlink = [this](const char* path) {
        calls.push_back(std::string("unlink ") + path);
        return 0;
    };
    hooks.bind = [this](int fd, const sockaddr* address, socklen_t length) {
        note("bind", fd, address->sa_family, static_cast<int>(length));
        calls.push_back(reinterpret_cast<const sockaddr_un*>(address)->sun_path);
        return 0;
    };
    hooks.close = [this](int fd) {
        if (fd != kTxSocket && fd != kRxSocket) {
            return fake_sys::real::close(fd);
        }
        calls.push_back("close " + std::to_string(fd));
        return 0;
    };
    threads.install();
    threads.nameOf = [](const FakeThreads::Thread& thread) {
        return thread.policy < 0 ? "" : "with attributes";
    };
    // The service admits only the threads that it created; here that is the test's own thread.
    threads.onCreate = [](FakeThreads::Thread& thread) {
        thread.id = pthread_self();
        return 0;
    };
}

bool IpcService::start() {
    hold();
    sockets = 0;
    threads.created.clear();
    return ipc.start();
}

std::vector<IpcService::Message> IpcService::take() {
    const fake_sys::Hooks saved = fake_sys::hooks();
    std::vector<Message> taken;
    fake_sys::hooks() = {};
    fake_sys::hooks().sendto = [&](int, const void* data, size_t size, int, const sockaddr*,
                                   socklen_t) {
        UsbAudioMsgT msg{};
        EXPECT_EQ(sizeof msg, size);
        memcpy(&msg, data, sizeof msg);
        taken.emplace_back(msg.type, msg.data);
        return static_cast<ssize_t>(size);
    };
    fake_sys::hooks().pthread_cond_wait = [](pthread_cond_t*, pthread_mutex_t*) { return EINVAL; };
    runTx();
    fake_sys::hooks() = saved;
    return taken;
}

void IpcService::note(const std::string& call, int a, int b, int c) {
    calls.push_back(call + ' ' + std::to_string(a) + ' ' + std::to_string(b) + ' ' +
                    std::to_string(c));
}

namespace ipc_service {

std::vector<fake_log::Line> linesBetween(const fake_log::Line& first, const fake_log::Line& last) {
    const std::vector<fake_log::Line> lines = fake_log::lines();
    if (lines.size() < 2 || !(lines.front() == first) || !(lines.back() == last)) {
        ADD_FAILURE() << "the log is not framed by its loop's first and last line";
        return lines;
    }
    return {lines.begin() + 1, lines.end() - 1};
}

std::string bytesOf(uint32_t type, uint32_t data) {
    std::string bytes(8, '\0');
    memcpy(&bytes[0], &type, sizeof type);
    memcpy(&bytes[4], &data, sizeof data);
    return bytes;
}

}  // namespace ipc_service
}  // namespace uafd
