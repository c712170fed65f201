// SPDX-License-Identifier: Apache-2.0
// A case of the gadget driver, usb_f_vexa, with a real host on the other end of the wire.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "board/kit/files.h"
#include "tests/board/control.h"
#include "tests/board/usb/usb_case.h"

namespace uafd {

constexpr char kDriverPcm[] = "hw:Gadget";
// The function's folder in configfs.
constexpr char kFunction[] = "/sys/kernel/config/usb_gadget/board/functions/vexa.0";

class DriverCase : public UsbCase {
  protected:
    using Attributes = std::map<std::string, std::string>;

    void make(const Attributes& attributes = {}) {
        gadget = std::make_unique<board::KernelGadget>("vexa", attributes);
        gadgetPcm = kDriverPcm;
        control.emplace();
        control->records();
    }
    // The gadget is bound and the host has its card.
    void enumerate(const Attributes& attributes = {}, bool fullSpeed = false) {
        wire.setFullSpeed(fullSpeed);
        make(attributes);
        gadget->bind();
        ASSERT_TRUE(board::UsbHost::waitForCard());
    }
    // From here on the device is a test's, without the host's sound driver.
    static void takeFromHost() {
        for (const char* interface : {"1-1:1.0", "1-1:1.1", "1-1:1.2"}) {
            const std::string driver = "/sys/bus/usb/drivers/snd-usb-audio/";
            if (board::exists(driver + interface)) {
                board::put(driver + "unbind", interface);
            }
        }
    }

    std::optional<Control> control;  // from make() on
};

}  // namespace uafd
