// SPDX-License-Identifier: Apache-2.0
#include "tests/fuzz/cable_run.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cable/cable_mon.h"

namespace uafd::fuzz {

using fake_log::kCableLog;

namespace {

constexpr int kNetlinkFd = 903;
constexpr int kPropertyFd = 1000;

// Started only once, as the queue of messages belongs to the process.
IpcService& service() {
    static auto* const only = [] {
        auto* const started = new IpcService;
        require(started->start(), "the message service starts");
        fake_sys::reset();
        fake_log::clear();
        return started;
    }();
    return *only;
}

}  // namespace

const char kCableUsbFile[] = "/sys/devices/virtual/android_usb/android0/state";
const char kCablePlugFile[] =
    "/sys/devices/platform/ff2c0000.syscon/ff2c0000.syscon:usb2-phy@100/extcon/extcon0/cable.0/"
    "state";

fake_log::Line cableReceiveError(bool watched, int error) {
    const std::string text =
        "recvmsg error: <-1:" + std::to_string(error) + ":" + strerror(error) + ">";
    return watched ? kCableLog.debug(text + " - likely a timeout for RK-based SoC\n")
                   : kCableLog.error(text + "\n");
}

CableRun::CableRun() {
    service();
    installFiles(files);
    fake_sys::Hooks& hooks = fake_sys::hooks();
    hooks.open = [this](const char* path, int) {
        const auto found = properties.find(path);
        if (found == properties.end()) {
            errno = ENOENT;
            return -1;
        }
        openProperties.push_back(found->second);
        return kPropertyFd + static_cast<int>(openProperties.size()) - 1;
    };
    hooks.read = [this](int fd, void* data, size_t room) { return readProperty(fd, data, room); };
    hooks.close = [](int) { return 0; };
    hooks.socket = [](int, int, int) { return kNetlinkFd; };
    hooks.bind = [](int, const sockaddr*, socklen_t) { return 0; };
    hooks.setsockopt = [this](int, int, int, const void*, socklen_t) {
        watched = true;
        return 0;
    };
    threads.install();
    hooks.system = [this](const char* command) {
        commands.emplace_back(command);
        return 0;
    };
}

ssize_t CableRun::readProperty(int fd, void* data, size_t room) {
    std::string& rest = openProperties.at(static_cast<size_t>(fd - kPropertyFd));
    const size_t n = rest.copy(static_cast<char*>(data), room);
    rest.erase(0, n);
    return static_cast<ssize_t>(n);
}

void CableRun::run(const std::function<ssize_t(msghdr&)>& receive) {
    fake_sys::hooks().recvmsg = [&receive](int, msghdr* header, int) { return receive(*header); };
    CableMon monitor;
    require(monitor.start() && threads.created.size() == 1, "the monitor starts");
    loop.run([this] { threads.created.back().run(); });
}

ssize_t CableRun::fail(int error) {
    errno = error;
    return -1;
}

std::vector<IpcService::Message> CableRun::takeMessages() {
    return service().take();
}

}  // namespace uafd::fuzz
