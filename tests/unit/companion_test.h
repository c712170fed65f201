// SPDX-License-Identifier: Apache-2.0
// The fixture of the companion library's tests: a folder, the daemon's ends in it, and a companion
// that is closed before them. One thread.
#pragma once

#include <cstdlib>
#include <poll.h>
#include <uafd_companion.hpp>
#include <unistd.h>

#include "tests/support/daemon_ends.h"
#include "tests/support/fake_sys.h"

namespace uafd {

// While this object exists, the process has only the rights of an ordinary user. One at a time.
class Unprivileged {
  public:
    Unprivileged() : formerUser(geteuid()) { become(formerUser == 0 ? 65534 : formerUser); }
    ~Unprivileged() { become(formerUser); }
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;

  private:
    static void become(uid_t user) {
        if (seteuid(user) != 0) {
            abort();
        }
    }

    const uid_t formerUser;
};

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
