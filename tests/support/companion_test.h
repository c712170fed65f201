// SPDX-License-Identifier: Apache-2.0
// The fixture of the companion library's tests: a folder, the daemon's ends in it, and a companion
// that is closed before them. One thread.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <uafd_companion.hpp>

#include "tests/support/daemon_ends.h"
#include "tests/support/fake_sys.h"

namespace uafd {

class CompanionTest : public fake_sys::Test {
  protected:
    using Event = std::pair<uafd_event_type, int>;

    int open(unsigned parts = UAFD_ALL) { return companion.open(parts, folder.path().c_str()); }
    // Opens the parts beside a daemon. The daemon's start has been reported, and the request for
    // its states is discarded.
    void openBesideDaemon(unsigned parts = UAFD_ALL) {
        daemon.bindSocket();
        ASSERT_EQ(0, open(parts));
        takeEvents();
        daemon.messages();
    }
    void openBoth() {
        openBesideDaemon();
        ASSERT_TRUE(daemon.openFifos());
    }
    // All events that are waiting.
    std::vector<Event> takeEvents() {
        std::vector<Event> events;
        while (const auto event = companion.nextEvent()) {
            events.emplace_back(event->type, event->value);
        }
        return events;
    }
    // What poll returns at once for a descriptor.
    static int pollNow(int fd) {
        pollfd source{fd, POLLIN | POLLOUT, 0};
        poll(&source, 1, 0);
        return source.revents;
    }

    TempDir folder;
    DaemonEnds daemon{folder};
    uafd::Companion companion;
};

}  // namespace uafd
