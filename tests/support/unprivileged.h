// SPDX-License-Identifier: Apache-2.0
// For as long as it lives, the process has no more rights than any user has. One at a time.
#pragma once

#include <cstdlib>
#include <unistd.h>

class Unprivileged {
  public:
    Unprivileged() : user_(geteuid()) { become(user_ == 0 ? 65534 : user_); }
    ~Unprivileged() { become(user_); }
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;

  private:
    static void become(uid_t user) {
        if (seteuid(user) != 0) {
            abort();
        }
    }

    const uid_t user_;
};
