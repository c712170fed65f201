// SPDX-License-Identifier: Apache-2.0
// While this object exists, the process has only the rights of an ordinary user. One at a time.
#pragma once

#include <cstdlib>
#include <unistd.h>

namespace uafd {

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

}  // namespace uafd
