// SPDX-License-Identifier: Apache-2.0
// Cases on the USB wire, which is as after loading at the beginning: of the kernel's own gadgets,
// and of the gadget driver, usb_f_vexa, each with a real host on the other end.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "board/kit/files.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/pcm_stream.h"
#include "board/kit/usb/usb_host.h"
#include "board/kit/usb/wire.h"
#include "tests/board/control.h"

namespace uafd {

// A gadget's function, and where its sound is.
struct SoundFunction {
    const char* name;     // in configfs
    const char* pcm;      // the gadget's card
    const char* speaker;  // the endpoints, in the wire's words
    const char* mic;
};

constexpr SoundFunction kUac2{"uac2", "hw:UAC2Gadget", "ep1out", "ep3in"};
constexpr SoundFunction kUac1{"uac1", "hw:UAC1Gadget", "ep1out", "ep2in"};

constexpr int64_t kEnoughFrames = 4800;

// Sound from end to end of the kernel's gadget, and back: noise, from its first frame on.
struct SoundStreams {
    explicit SoundStreams(const std::string& gadgetPcm)
        : app(gadgetPcm), appMic(gadgetPcm, board::noise) {}

    // So much more of it arrives at both ends.
    bool flow(int64_t frames = kEnoughFrames) {
        const int64_t heard = app.frames() + frames;
        const int64_t recorded = hostMic.frames() + frames;
        return board::waitFor([&] { return app.frames() > heard && hostMic.frames() > recorded; });
    }
    void stop() {
        for (board::PcmStream* pcm :
             std::initializer_list<board::PcmStream*>{&hostSpeaker, &hostMic, &app, &appMic}) {
            pcm->stop();
        }
    }

    board::PcmRecorder app;
    board::PcmPlayer appMic;
    board::PcmPlayer hostSpeaker{board::kHostPcm, board::noise};
    board::PcmRecorder hostMic{board::kHostPcm};
};

class UsbCase : public testing::Test {
  protected:
    UsbCase() { wire.restore(); }

    // The gadget is bound and the host has its card.
    void enumerate(const SoundFunction& function = kUac2, bool fullSpeed = false) {
        wire.setFullSpeed(fullSpeed);
        makeGadget(function);
        bind();
    }
    void bind() {
        gadget->bind();
        ASSERT_TRUE(board::UsbHost::waitForCard());
    }
    // Pulls the cable, or plugs it in; returns when the host has lost its card or has one.
    void pull() {
        wire.unplug();
        ASSERT_TRUE(board::UsbHost::waitForCard(false));
    }
    void plug() {
        wire.plug();
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
        bind();
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

// ---- The wire's module --------------------------------------------------------------------------

// 0, or the errno that refused it.
inline int unloadWire() {
    return board::unloadModule("usb_wire");
}

// Takes the module out from under whatever there is, and puts it back. It goes at once: a transfer
// that it left hanging would hold it for 5 s.
inline void reloadWire() {
    const board::Ns begin = board::now();
    ASSERT_EQ(unloadWire(), 0);
    EXPECT_LT(board::now() - begin, board::kSecond);
    EXPECT_FALSE(board::exists("/proc/usb_wire"));
    EXPECT_FALSE(board::exists("/dev/usb_wire"));
    EXPECT_FALSE(board::exists(std::string("/sys/class/udc/") + board::kUdc));
    EXPECT_FALSE(board::UsbHost::hasCard());
    board::loadModule("usb_wire");
}

}  // namespace uafd
