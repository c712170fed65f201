// SPDX-License-Identifier: Apache-2.0
// The app IPC service without its outside: sockets are numbers, thread entries are kept until the
// test runs them, and what the service sends is collected. One thread.
#pragma once

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "ipc/uaf_ipc.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"

namespace ipc_service {

// The log behind its first and before its last line, which must be these.
inline std::vector<fake_log::Line> linesBetween(const fake_log::Line& first,
                                                const fake_log::Line& last) {
    const std::vector<fake_log::Line> lines = fake_log::lines();
    if (lines.size() < 2 || !(lines.front() == first) || !(lines.back() == last)) {
        ADD_FAILURE() << "the log is not framed by its loop's first and last line";
        return lines;
    }
    return {lines.begin() + 1, lines.end() - 1};
}

// The record as it travels.
inline std::string bytesOf(uint32_t type, uint32_t data) {
    std::string bytes(8, '\0');
    memcpy(&bytes[0], &type, sizeof type);
    memcpy(&bytes[4], &data, sizeof data);
    return bytes;
}

// Runs what must not outlive it in a process of its own; true when no expectation failed there.
inline bool passesInAChild(const std::function<void()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace ipc_service

class IpcService {
  public:
    using Message = std::pair<uint32_t, uint32_t>;  // type, data
    static constexpr int TX_SOCK = 901;
    static constexpr int RX_SOCK = 902;

    // Sets the hooks that keep start() from the outside; each call is noted in `calls`.
    void hold() {
        fake_sys::Hooks& hooks = fake_sys::hooks();
        hooks.socket = [this](int domain, int type, int protocol) {
            const int fd = ++sockets == 1 ? TX_SOCK : RX_SOCK;
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
            if (fd != TX_SOCK && fd != RX_SOCK)
                return fake_sys::real::close(fd);
            calls.push_back("close " + std::to_string(fd));
            return 0;
        };
        hooks.pthread_create = [this](pthread_t* id, const pthread_attr_t* attributes,
                                      void* (*entry)(void*), void* argument) {
            calls.push_back(attributes == nullptr ? "create" : "create with attributes");
            *id = pthread_self();
            threads.push_back({entry, argument});
            return 0;
        };
    }

    bool start() {
        hold();
        sockets = 0;
        threads.clear();
        return ipc.start();
    }
    // With the hooks as they are.
    bool startAgain() { return ipc.start(); }

    // Run the service's threads, in this one, until a hook ends their loop.
    void runRx() { threads[0].entry(threads[0].argument); }
    void runTx() { threads[1].entry(threads[1].argument); }

    // Every message that waits for the app, taken by the real transmit loop.
    std::vector<Message> take() {
        const fake_sys::Hooks saved = fake_sys::hooks();
        std::vector<Message> taken;
        fake_sys::hooks() = {};
        fake_sys::hooks().sendto = [&](int, const void* data, size_t size, int, const sockaddr*,
                                       socklen_t) {
            UsbAudioMsgT msg{};
            memcpy(&msg, data, sizeof msg);
            taken.emplace_back(msg.type, msg.data);
            return static_cast<ssize_t>(size);
        };
        fake_sys::hooks().pthread_cond_wait = [this](pthread_cond_t*, pthread_mutex_t* mutex) {
            queueMutex = mutex;
            return EINVAL;
        };
        runTx();
        fake_sys::hooks() = saved;
        return taken;
    }

    std::vector<std::string> calls;
    pthread_mutex_t* queueMutex = nullptr;  // known from the first take() on

  private:
    struct Thread {
        void* (*entry)(void*);
        void* argument;
    };

    void note(const std::string& call, int a, int b, int c) {
        calls.push_back(call + ' ' + std::to_string(a) + ' ' + std::to_string(b) + ' ' +
                        std::to_string(c));
    }

    UafIpc ipc;
    std::vector<Thread> threads;
    int sockets = 0;
};
