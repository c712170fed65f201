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

// A gadget's function, and where its sound is.
struct SoundFunction {
    const char* name;     // in configfs
    const char* pcm;      // the gadget's card
    const char* speaker;  // the endpoints, in the wire's words
    const char* mic;
};

constexpr SoundFunction kUac2{"uac2", "hw:UAC2Gadget", "ep1out", "ep3in"};
constexpr SoundFunction kUac1{"uac1", "hw:UAC1Gadget", "ep1out", "ep2in"};

class UsbCase : public testing::Test {
  protected:
    UsbCase() { wire.restore(); }

    // The gadget is bound and the host has its card.
    void enumerate(const SoundFunction& function = kUac2, bool fullSpeed = false) {
        wire.setFullSpeed(fullSpeed);
        makeGadget(function);
        gadget->bind();
        ASSERT_TRUE(board::UsbHost::waitForCard());
    }
    // Not bound yet.
    void makeGadget(const SoundFunction& function = kUac2) {
        gadget = std::make_unique<board::KernelGadget>(function.name);
        gadgetPcm = function.pcm;
        speaker = function.speaker;
        mic = function.mic;
    }

    board::Wire wire;
    std::unique_ptr<board::KernelGadget> gadget;
    std::string gadgetPcm;
    std::string speaker;
    std::string mic;
};
