// SPDX-License-Identifier: Apache-2.0
// The usb_wire module's coming and going.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/usb_host.h"

// 0, or the errno that refused it.
inline int unload() {
    return board::unloadModule("usb_wire");
}

// Takes the module out from under whatever there is, and puts it back. It goes at once: a transfer
// that it left hanging would hold it for 5 s.
inline void reload() {
    const board::Ns begin = board::now();
    ASSERT_EQ(unload(), 0);
    EXPECT_LT(board::now() - begin, board::kSecond);
    EXPECT_FALSE(board::exists("/proc/usb_wire"));
    EXPECT_FALSE(board::exists("/dev/usb_wire"));
    EXPECT_FALSE(board::exists(std::string("/sys/class/udc/") + board::kUdc));
    EXPECT_FALSE(board::UsbHost::hasCard());
    board::loadModule("usb_wire");
}
