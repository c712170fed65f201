// SPDX-License-Identifier: Apache-2.0
#include "board/kit/uevent.h"

#include <algorithm>

#include <linux/netlink.h>
#include <sys/socket.h>

namespace board {

std::string ueventText(const std::string& words) {
    std::string text = words + '\0';
    std::replace(text.begin(), text.end(), ' ', '\0');
    return text;
}

UeventSender::UeventSender()
    : descriptor(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT)) {}

void UeventSender::send(const std::string& text, unsigned groups) {
    sendTo(text, groups);
}

// A message sent to the kernel is broadcast as the kernel's own.
void UeventSender::sendAsKernel(const std::string& text) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<uint32_t>(sizeof header + text.size());
    header.nlmsg_type = NLMSG_MIN_TYPE;
    header.nlmsg_flags = NLM_F_REQUEST;
    sendTo(std::string(reinterpret_cast<const char*>(&header), sizeof header) + text, 0);
}

void UeventSender::sendTo(const std::string& bytes, unsigned groups) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (sendto(descriptor.get(), bytes.data(), bytes.size(), 0,
               reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        fail("sending a uevent");
    }
}

}  // namespace board
