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
#include "tests/board/usb/usb_case.h"

namespace uafd {
namespace {

using namespace board;

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
        EXPECT_TRUE(SoundStreams(kUac2.pcm).flow());
    }

    std::unique_ptr<KernelGadget> gadget;
};

TEST_F(Module, GoesWhenNothingIsBound) {
    reloadWire();
    expectSound();
}

// Its timer is set for the command, and nothing else sets it again.
TEST_F(Module, GoesWithACommandPlanned) {
    {
        Wire wire;
        wire.unplug(wire.uframeIn(100));
    }
    reloadWire();
    sleepFor(150 * kMs);
    expectSound();
}

TEST_F(Module, StaysWhileItsCommandsAreOpen) {
    {
        const Wire wire;
        EXPECT_EQ(unloadWire(), EAGAIN);
    }
    reloadWire();
    expectSound();
}

TEST_F(Module, GoesFromAnEnumeratedGadget) {
    enumerate();
    reloadWire();
    expectSound();
}

TEST_F(Module, GoesFromAnUnpluggedGadget) {
    enumerate();
    Wire().unplug();
    reloadWire();
    expectSound();
}

TEST_F(Module, GoesInMidEnumeration) {
    gadget = std::make_unique<KernelGadget>("uac2");
    for (const Ns delay : {1, 120, 200, 300, 390}) {
        gadget->bind();
        sleepFor(delay * kMs);
        reloadWire();
        gadget->unbind();
    }
    expectSound();
}

TEST_F(Module, GoesWhileTheHostWaitsForItsFirstTransfer) {
    gadget = std::make_unique<KernelGadget>("uac2");
    for (const char* command : {"suspend", "poll all 0"}) {
        Wire().command(command);
        gadget->bind();
        sleepFor(500 * kMs);
        reloadWire();
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
    SoundStreams streams(kUac2.pcm);
    ASSERT_TRUE(streams.flow());
    Wire().command(GetParam());
    // A suspend is noticed after 3 ms.
    sleepFor(5 * kMs);
    reloadWire();
    ASSERT_TRUE(waitFor([&] { return streams.hostMic.isOver() && streams.hostSpeaker.isOver(); }));
    ASSERT_TRUE(waitFor([&] { return streams.app.isOver() && streams.appMic.isOver(); }));
    streams.app.stop();
    streams.appMic.stop();
    expectSound();
}

}  // namespace
}  // namespace uafd
