// SPDX-License-Identifier: Apache-2.0
// A case on the USB wire: the wire as after loading at the beginning, and what to do with the
// kernel's gadget.
#pragma once

#include <map>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/pcm_stream.h"
#include "board/kit/usb/usb_host.h"
#include "board/kit/usb/wire.h"

class UsbCase : public testing::Test {
  protected:
    UsbCase() { wire.restore(); }

    // The gadget is bound and the host has its card.
    void enumerate(const std::string& function = "uac2", bool fullSpeed = false) {
        wire.setFullSpeed(fullSpeed);
        gadget = std::make_unique<board::KernelGadget>(function);
        gadgetPcm = function == "uac1" ? "hw:UAC1Gadget" : "hw:UAC2Gadget";
        gadget->bind();
        ASSERT_TRUE(board::UsbHost::waitForCard());
    }
    // The name of the endpoint of the host's speaker or microphone, in the wire's words.
    std::string speaker = "ep1out";
    std::string mic = "ep3in";

    board::Wire wire;
    std::unique_ptr<board::KernelGadget> gadget;
    std::string gadgetPcm;
};
