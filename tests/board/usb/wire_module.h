// SPDX-License-Identifier: Apache-2.0
// The usb_wire module's coming and going.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "board/kit/files.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/usb_host.h"

// 0, or the errno that refused it.
inline int unload() {
    return syscall(SYS_delete_module, "usb_wire", O_NONBLOCK) == 0 ? 0 : errno;
}

// Takes the module out from under whatever there is, and puts it back.
inline void reload() {
    ASSERT_EQ(unload(), 0);
    EXPECT_FALSE(board::exists("/proc/usb_wire"));
    EXPECT_FALSE(board::exists("/dev/usb_wire"));
    EXPECT_FALSE(board::exists(std::string("/sys/class/udc/") + board::kUdc));
    EXPECT_FALSE(board::UsbHost::hasCard());
    ASSERT_EQ(system("modprobe usb_wire"), 0);
}
