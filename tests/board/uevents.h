// SPDX-License-Identifier: Apache-2.0
// A listener for the kernel's uevents. One thread.
#pragma once

#include <algorithm>
#include <string>
#include <unistd.h>
#include <vector>

#include <linux/netlink.h>
#include <sys/socket.h>

namespace uafd {

class Uevents {
  public:
    Uevents() : descriptor(socket(AF_NETLINK, SOCK_DGRAM | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT)) {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = 1;
        bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    ~Uevents() { close(descriptor); }
    Uevents(const Uevents&) = delete;
    Uevents& operator=(const Uevents&) = delete;

    // Returns the next event's strings joined by spaces, without its number; empty when there is
    // none.
    std::string next() {
        char buffer[4096];
        const ssize_t len = recv(descriptor, buffer, sizeof buffer, 0);
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
    const int descriptor;
};

}  // namespace uafd
