// SPDX-License-Identifier: Apache-2.0
// The USB wire: the module comes and goes in every state of host, gadget and streams, and leaves
// nothing behind.
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "board/kit/clock.h"
#include "board/kit/sound.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/pcm_stream.h"
#include "board/kit/usb/usb_host.h"
#include "board/kit/usb/wire.h"
#include "tests/board/usb/wire_module.h"

namespace {

using board::KernelGadget;
using board::noise;
using board::PcmPlayer;
using board::PcmRecorder;
using board::UsbHost;
using board::waitFor;
using board::Wire;

constexpr char kGadgetPcm[] = "hw:UAC2Gadget";
constexpr int64_t kEnoughFrames = 4800;

// Sound from end to end.
struct Streams {
    PcmRecorder app{kGadgetPcm};
    PcmPlayer appMic{kGadgetPcm, noise};
    PcmPlayer hostSpeaker{board::kHostPcm, noise};
    PcmRecorder hostMic{board::kHostPcm};

    bool flow() {
        const int64_t heard = app.frames() + kEnoughFrames;
        const int64_t recorded = hostMic.frames() + kEnoughFrames;
        return waitFor([&] { return app.frames() > heard && hostMic.frames() > recorded; });
    }
};

class Module : public testing::Test {
  protected:
    void SetUp() override { Wire().restore(); }

    void enumerate() {
        gadget = std::make_unique<KernelGadget>("uac2");
        gadget->bind();
        ASSERT_TRUE(UsbHost::waitForCard());
    }
    void expectSound() {
        gadget.reset();
        enumerate();
        Streams streams;
        EXPECT_TRUE(streams.flow());
    }

    std::unique_ptr<KernelGadget> gadget;
};

TEST_F(Module, GoesWhenNothingIsBound) {
    reload();
    expectSound();
}

// Its timer is set for the command, and nothing else sets it again.
TEST_F(Module, GoesWithACommandPlanned) {
    {
        Wire wire;
        wire.unplug(wire.uframeIn(100));
    }
    reload();
    board::sleepFor(150 * board::kMs);
    expectSound();
}

TEST_F(Module, StaysWhileItsCommandsAreOpen) {
    {
        const Wire wire;
        EXPECT_EQ(unload(), EAGAIN);
    }
    reload();
    expectSound();
}

TEST_F(Module, GoesFromAnEnumeratedGadget) {
    enumerate();
    reload();
    expectSound();
}

TEST_F(Module, GoesFromAnUnpluggedGadget) {
    enumerate();
    Wire().unplug();
    reload();
    expectSound();
}

TEST_F(Module, GoesInMidEnumeration) {
    gadget = std::make_unique<KernelGadget>("uac2");
    for (const board::Ns delay : {1, 120, 200, 300, 390}) {
        gadget->bind();
        board::sleepFor(delay * board::kMs);
        reload();
        gadget->unbind();
    }
    expectSound();
}

TEST_F(Module, GoesWhileTheHostWaitsForItsFirstTransfer) {
    gadget = std::make_unique<KernelGadget>("uac2");
    for (const char* command : {"suspend", "poll all 0"}) {
        Wire().command(command);
        gadget->bind();
        board::sleepFor(500 * board::kMs);
        reload();
        gadget->unbind();
    }
    expectSound();
}

// What is done to the wire while streams run, before the module goes.
class StreamingModule : public Module, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Usb, StreamingModule,
                         testing::Values("clear", "suspend", "poll all 0", "poll ep1out 0",
                                         "unplug", "reset", "fault ep1out lost times=0",
                                         "ppb 100000000"));

TEST_P(StreamingModule, Goes) {
    enumerate();
    Streams streams;
    ASSERT_TRUE(streams.flow());
    Wire().command(GetParam());
    // A suspend is noticed after 3 ms.
    board::sleepFor(5 * board::kMs);
    reload();
    ASSERT_TRUE(waitFor([&] { return streams.hostMic.isOver() && streams.hostSpeaker.isOver(); }));
    ASSERT_TRUE(waitFor([&] { return streams.app.isOver() && streams.appMic.isOver(); }));
    streams.app.stop();
    streams.appMic.stop();
    expectSound();
}

}  // namespace
