// SPDX-License-Identifier: Apache-2.0
// A listener for the kernel's uevents, and a sender of others than those of the board's own
// devices. One thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <linux/netlink.h>
#include <sys/socket.h>

#include "board/kit/files.h"

namespace uafd {

class UeventListener {
  public:
    UeventListener()
        : descriptor(socket(AF_NETLINK, SOCK_DGRAM | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT)) {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = 1;
        bind(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }

    // Returns the next event's strings joined by spaces, without its number; empty when there is
    // none.
    std::string next() {
        char buffer[4096];
        const ssize_t len = recv(descriptor.get(), buffer, sizeof buffer, 0);
        std::string text(buffer, static_cast<size_t>(std::max<ssize_t>(len, 1)) - 1);
        std::replace(text.begin(), text.end(), '\0', ' ');
        return text.substr(0, text.find(" SEQNUM="));
    }
    std::vector<std::string> ofSubsystem(const std::string& subsystem) {
        std::vector<std::string> all;
        for (std::string event = next(); !event.empty(); event = next()) {
            if (event.find("SUBSYSTEM=" + subsystem + " ") != std::string::npos ||
                event.find("SUBSYSTEM=" + subsystem) + 10 + subsystem.size() == event.size()) {
                all.push_back(event);
            }
        }
        return all;
    }

  private:
    const board::Fd descriptor;
};

// "HEADER FIELD FIELD", where each blank becomes the end of a text.
inline std::string ueventText(const std::string& words) {
    std::string text = words + '\0';
    std::replace(text.begin(), text.end(), ' ', '\0');
    return text;
}

class UeventSender {
  public:
    // As a process sends them, to the multicast groups of the mask. Throws when it cannot.
    void send(const std::string& bytes, unsigned groups) const {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = groups;
        if (sendto(descriptor.get(), bytes.data(), bytes.size(), 0,
                   reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
            board::fail("sending a uevent");
        }
    }
    // In the kernel's name, which nobody can tell from its own: what is sent to the kernel is
    // broadcast. It gets a SEQNUM field at its end.
    void sendAsKernel(const std::string& text) const {
        nlmsghdr header{};
        header.nlmsg_len = static_cast<uint32_t>(sizeof header + text.size());
        header.nlmsg_type = NLMSG_MIN_TYPE;
        header.nlmsg_flags = NLM_F_REQUEST;
        send(std::string(reinterpret_cast<const char*>(&header), sizeof header) + text, 0);
    }

  private:
    const board::Fd descriptor{
        socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT)};
};

}  // namespace uafd
