// SPDX-License-Identifier: Apache-2.0
// What may arrive on the uevent socket: bytes of any kind and length, from any sender, truncated,
// and errors. Every message must give the one log line, and the messages to the app, that follow
// from a simple reading of the text.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <linux/netlink.h>

#include "tests/fuzz/cable_run.h"

namespace uafd {

const int fuzz::kMaxInputBytes = 64;

namespace {

using fake_log::kCableLog;
using fuzz::beginsWith;
using fuzz::require;
using Message = IpcService::Message;

constexpr size_t kParamsMax = 32;
constexpr char kController[] = "/run/properties/sys.usb.controller";

// 0 and 18 end a field.
const std::string kWords[] = {std::string(1, '\0'),
                              "change@/devices/virtual/android_usb/android0",
                              "ACTION=",
                              "SUBSYSTEM=",
                              "USB_STATE=",
                              "SEQNUM=",
                              "android_usb",
                              "change",
                              "add",
                              "remove",
                              "CONFIGURED",
                              "CONNECTED",
                              "DISCONNECTED",
                              "DEVPATH=",
                              "USB_STATE",
                              "ACTION=change",
                              "SUBSYSTEM=android_usb",
                              "@",
                              std::string("a\0b\0", 4)};

// What a uevent's text says.
struct Reading {
    explicit Reading(const std::string& bytes) {
        std::istringstream strings(bytes);
        std::string field;
        std::getline(strings, field, '\0');
        valid = field.find('@') != std::string::npos;
        while (std::getline(strings, field, '\0')) {
            take(field);
        }
    }

    void take(const std::string& field) {
        if (beginsWith(field, "ACTION=")) {
            const std::string name = field.substr(7);
            action = name == "add" ? 1 : name == "remove" ? 2 : name == "change" ? 3 : action;
        } else if (beginsWith(field, "SUBSYSTEM=")) {
            subsystem = field.substr(10);
        } else if (!beginsWith(field, "SEQNUM=") && params++ < kParamsMax && !hasState &&
                   beginsWith(field, "USB_STATE=")) {
            hasState = true;
            state = field.substr(10);
        }
    }

    bool valid = false;
    int action = 0;
    std::string subsystem;
    bool hasState = false;
    std::string state;
    size_t params = 0;
};

class UeventRun {
  public:
    explicit UeventRun(fuzz::Input& input) : input(input) {}

    void run() {
        const bool watched = (input.byte() & 1) != 0;
        if (watched) {
            cable.properties[kController] = "ff300000.usb\n";
        }
        expected = {kCableLog.error(std::string("opening ") + fuzz::kCableUsbFile +
                                    " failed: <2:No such file or directory>\n"),
                    kCableLog.debug("enter loop\n")};
        cable.run([this](msghdr& header) { return receive(header); });
        require(cable.watched == watched, "the property decides on the check");
        require(cable.commands.empty(), "nothing is restarted");
        fuzz::requireLog(expected);
        require(cable.takeMessages() == messages, "the app hears of the edges");
    }

  private:
    ssize_t receive(msghdr& header) {
        require(header.msg_iovlen == 1 && header.msg_iov->iov_len == 2304,
                "the buffer has its size");
        if (input.empty()) {
            cable.end();
        }
        const uint8_t how = input.byte();
        const uint8_t argument = how >> 3;
        auto* const sender = static_cast<sockaddr_nl*>(header.msg_name);
        sender->nl_pid = 0;
        sender->nl_groups = 1;
        header.msg_flags = 0;
        if ((how & 7) == 0) {
            const int error = fuzz::errorOf(argument);
            expected.push_back(fuzz::cableReceiveError(cable.watched, error));
            return cable.fail(error);
        }
        const std::string bytes =
            fuzz::expand(input.text(argument < 28 ? argument : input.byte()), kWords);
        const size_t n = std::min<size_t>(bytes.size(), header.msg_iov->iov_len);
        memcpy(header.msg_iov->iov_base, bytes.data(), n);
        errno = 0;
        if ((how & 7) == 1) {
            header.msg_flags = MSG_TRUNC;
            expected.push_back(kCableLog.error("recvmsg truncate: <" + std::to_string(n) +
                                               ":0:Success>, buf size is 2304\n"));
        } else if ((how & 7) == 2) {
            sender->nl_pid = input.byte() % 4;
            sender->nl_groups = input.byte() % 4;
        }
        if ((how & 7) != 1) {
            handle(bytes.substr(0, n), sender->nl_pid == 0 && sender->nl_groups == 1);
        }
        return static_cast<ssize_t>(n);
    }

    void handle(const std::string& bytes, bool fromKernel) {
        const Reading event(bytes);
        if (!fromKernel) {
            expected.push_back(kCableLog.error("ignoring non-kernel netlink multicast message\n"));
        } else if (bytes.empty()) {
            expected.push_back(kCableLog.debug("recvmsg returned zero\n"));
        } else if (!event.valid) {
            expected.push_back(kCableLog.error("decoding netlinmk msg failed\n"));
        } else if (event.subsystem == "android_usb") {
            handle(event);
        }
    }

    void handle(const Reading& event) {
        const std::string text = "subsystem: android_usb, action: " + std::to_string(event.action);
        if (event.action != 3) {
            expected.push_back(kCableLog.debug(text + "\n"));
        } else if (!event.hasState) {
            expected.push_back(kCableLog.error("usb state is NULL\n"));
        } else {
            expected.push_back(kCableLog.debug(text + ", usbstate=" + event.state + "\n"));
            follow(event.state);
        }
    }

    void follow(const std::string& state) {
        if (state == "DISCONNECTED" && configured) {
            messages.emplace_back(0, 0);
            configured = false;
        } else if (state == "CONFIGURED" && !configured) {
            messages.emplace_back(0, 1);
            configured = true;
        }
    }

    fuzz::Input& input;
    fuzz::CableRun cable;
    fuzz::Lines expected;
    std::vector<Message> messages;
    bool configured = false;
};

}  // namespace

void fuzz::execute(Input& input) {
    UeventRun(input).run();
}

}  // namespace uafd
