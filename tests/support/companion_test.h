// The fixture of the companion library's tests: a folder, the daemon's ends in it, and a companion
// that is closed before them. One thread.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <uafd_companion.h>

#include "tests/support/daemon_ends.h"
#include "tests/support/fake_sys.h"

class CompanionTest : public fake_sys::Test {
  protected:
    int open(unsigned parts = UAFD_ALL) { return companion.open(parts, folder.path().c_str()); }
    void openBoth() {
        daemon.bindSocket();
        ASSERT_EQ(0, open());
        ASSERT_TRUE(daemon.openFifos());
    }
    // What poll says of a descriptor at once.
    static int pollNow(int fd) {
        pollfd source{fd, POLLIN | POLLOUT, 0};
        poll(&source, 1, 0);
        return source.revents;
    }

    TempDir folder;
    DaemonEnds daemon{folder};
    uafd::Companion companion;
};
