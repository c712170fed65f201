// SPDX-License-Identifier: Apache-2.0
// The gadget control device, opened through a node that the tests make for themselves. One thread.
#pragma once

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "daemon/uac_user.h"

namespace uafd {

// Type and data of a record.
using Record = std::pair<uint32_t, uint32_t>;

class Control {
  public:
    explicit Control(int flags = O_RDONLY | O_NONBLOCK) {
        constexpr char kNode[] = "/tmp/uac_user_test";
        mknod(kNode, S_IFCHR | 0600, makedev(kUacUserMajor, kUacUserMinor));
        descriptor = open(kNode, flags | O_CLOEXEC);
    }
    ~Control() { close(descriptor); }
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    int fd() const { return descriptor; }
    // 0 or the errno.
    int request(unsigned long code, void* argument) const {
        return ioctl(descriptor, code, argument) == 0 ? 0 : errno;
    }
    // All records that are queued.
    std::vector<Record> records() const {
        std::vector<Record> all;
        for (UacUserMsgT record; read(descriptor, &record, sizeof record) == sizeof record;) {
            all.emplace_back(record.type, record.data);
        }
        return all;
    }

  private:
    int descriptor;
};

}  // namespace uafd
