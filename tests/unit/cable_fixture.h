// SPDX-License-Identifier: Apache-2.0
// The cable monitor with its real thread on scripted uevents, with state files and properties in
// the test's own folder, and with the real message queue. Read the thread's results only when it
// has ended.
#pragma once

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "cable/cable_mon.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"
#include "tests/support/ipc_service.h"
#include "tests/support/temp_dir.h"

namespace uafd::cable {

using fake_log::kCableLog;
using Lines = std::vector<fake_log::Line>;
using Messages = std::vector<IpcService::Message>;
using Strings = std::vector<std::string>;

constexpr int kNetlinkSocket = 903;
inline const std::string kUsbStatePath = "/sys/devices/virtual/android_usb/android0/state";
inline const std::string kPlugStatePath =
    "/sys/devices/platform/ff2c0000.syscon/ff2c0000.syscon:usb2-phy@100/extcon/extcon0/cable.0/"
    "state";

inline const fake_log::Line kTickLine = kCableLog.debug(
    "recvmsg error: <-1:11:Resource temporarily unavailable> - likely a timeout for RK-based "
    "SoC\n");

// One answer from the uevent socket.
struct Receive {
    std::string bytes;
    ssize_t result = 0;
    int error = 0;
    uint32_t senderPid = 0;
    uint32_t senderGroups = 1;
    int flags = 0;
    std::function<void()> before = {};
};

inline const Receive kTick = {"", -1, EAGAIN};

// A message of these strings, each with a zero byte after it.
inline Receive uevent(std::initializer_list<std::string> strings) {
    std::string bytes;
    for (const std::string& string : strings)
        bytes += string + '\0';
    return {bytes, static_cast<ssize_t>(bytes.size())};
}
inline Receive usbState(const std::string& state) {
    return uevent({"change@/devices/virtual/android_usb/android0", "ACTION=change",
                   "SUBSYSTEM=android_usb", "USB_STATE=" + state});
}
inline fake_log::Line usbStateLine(const std::string& state) {
    return kCableLog.debug("subsystem: android_usb, action: 3, usbstate=" + state + "\n");
}

class Fixture : public fake_sys::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(service.start());
        service.take();
        fake_sys::reset();
        fake_log::clear();
        fakeFiles();
        fakeSocket();
        fake_sys::hooks().pthread_create = [this](pthread_t* id, const pthread_attr_t* attributes,
                                                  void* (*entry)(void*), void* argument) {
            EXPECT_EQ(nullptr, attributes);
            const int rc = fake_sys::real::pthread_create(id, nullptr, entry, argument);
            thread = *id;
            return rc;
        };
        fake_sys::hooks().system = [this](const char* command) {
            commands.push_back(command);
            return -1;
        };
        setUsb("DISCONNECTED\n");
    }
    void TearDown() override {
        service.take();
        fake_sys::Test::TearDown();
    }

    // Starts the monitor on these answers; its thread ends when they are used up.
    void run(CableMon& monitored, std::vector<Receive> answers) {
        size_t next = 0;
        fake_sys::hooks().recvmsg = [&](int fd, msghdr* header, int flags) {
            if (next == answers.size())
                pthread_exit(nullptr);
            return answer(answers[next++], fd, *header, flags);
        };
        ASSERT_TRUE(monitored.start());
        pthread_join(thread, nullptr);
        EXPECT_EQ(answers.size(), next);
    }
    void run(std::vector<Receive> answers) { run(monitor, std::move(answers)); }

    void setUsb(const std::string& line) { folder.write("usb", line); }
    void setPlug(const std::string& line) { folder.write("plug", line); }

    // A tick of the check that finds these lines in the state files.
    Receive check(const std::string& usb, const std::string& plug) {
        Receive tick = kTick;
        tick.before = [this, usb, plug] {
            setUsb(usb + "\n");
            setPlug(plug + "\n");
        };
        return tick;
    }

    // The log's lines after the loop's first one.
    static Lines linesInLoop() {
        Lines lines;
        bool inside = false;
        for (const fake_log::Line& line : fake_log::lines()) {
            if (inside)
                lines.push_back(line);
            inside = inside || line == kCableLog.debug("enter loop\n");
        }
        EXPECT_TRUE(inside) << "the loop was not entered";
        return lines;
    }

    TempDir folder;
    IpcService service;
    CableMon monitor;
    pthread_t thread{};
    Strings calls;
    Strings commands;

  private:
    void fakeFiles() {
        fake_sys::hooks().open = [this](const char* path, int flags) {
            const std::string name = std::filesystem::path(path).filename();
            EXPECT_EQ("/run/properties/" + name, path);
            return fake_sys::real::open((folder.path() + "/" + name).c_str(), flags);
        };
        fake_sys::hooks().fopen = [this](const char* path, const char* mode) {
            EXPECT_STREQ("r", mode);
            EXPECT_TRUE(path == kUsbStatePath || path == kPlugStatePath) << path;
            const char* const name = path == kUsbStatePath ? "/usb" : "/plug";
            return fake_sys::real::fopen((folder.path() + name).c_str(), mode);
        };
    }
    void fakeSocket() {
        fake_sys::hooks().socket = [this](int domain, int type, int protocol) {
            EXPECT_EQ((std::vector<int>{16, 2, 15}), (std::vector<int>{domain, type, protocol}));
            calls.push_back("socket");
            return kNetlinkSocket;
        };
        fake_sys::hooks().setsockopt = [this](int fd, int level, int name, const void* value,
                                              socklen_t length) {
            EXPECT_EQ((std::vector<int>{kNetlinkSocket, SOL_SOCKET, SO_RCVTIMEO}),
                      (std::vector<int>{fd, level, name}));
            EXPECT_EQ(sizeof(timeval), length);
            EXPECT_EQ(1, static_cast<const timeval*>(value)->tv_sec);
            EXPECT_EQ(0, static_cast<const timeval*>(value)->tv_usec);
            calls.push_back("timeout");
            return -1;
        };
        fake_sys::hooks().bind = [this](int fd, const sockaddr* address, socklen_t length) {
            EXPECT_EQ(kNetlinkSocket, fd);
            EXPECT_EQ(12U, length);
            const auto* const own = reinterpret_cast<const sockaddr_nl*>(address);
            EXPECT_EQ(AF_NETLINK, own->nl_family);
            EXPECT_EQ(static_cast<uint32_t>(getpid()), own->nl_pid);
            EXPECT_EQ(15U, own->nl_groups);
            calls.push_back("bind");
            return 0;
        };
        fake_sys::hooks().close = [this](int fd) {
            if (fd != kNetlinkSocket)
                return fake_sys::real::close(fd);
            calls.push_back("close");
            return 0;
        };
    }
    // Each message must arrive with all fields set again, so each answer overwrites all of them.
    static ssize_t answer(const Receive& receive, int fd, msghdr& header, int flags) {
        EXPECT_EQ(kNetlinkSocket, fd);
        EXPECT_EQ(0, flags);
        EXPECT_EQ(12U, header.msg_namelen);
        EXPECT_EQ(1U, header.msg_iovlen);
        EXPECT_EQ(2304U, header.msg_iov->iov_len);
        EXPECT_EQ(nullptr, header.msg_control);
        EXPECT_EQ(0U, header.msg_controllen);
        EXPECT_EQ(0, header.msg_flags);
        auto* const sender = static_cast<sockaddr_nl*>(header.msg_name);
        EXPECT_EQ(0U, sender->nl_pid + sender->nl_groups);
        if (receive.before)
            receive.before();
        memcpy(header.msg_iov->iov_base, receive.bytes.data(), receive.bytes.size());
        sender->nl_pid = receive.senderPid;
        sender->nl_groups = receive.senderGroups;
        header.msg_flags = receive.flags;
        header.msg_namelen = 1;
        header.msg_controllen = 99;
        errno = receive.error;
        return receive.result;
    }
};

}  // namespace uafd::cable
