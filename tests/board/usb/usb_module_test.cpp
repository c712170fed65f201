// SPDX-License-Identifier: Apache-2.0
// The USB wire: the module comes and goes in every state of host, gadget and streams, and leaves
// nothing behind.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "board/kit/sound.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/pcm_stream.h"
#include "board/kit/usb/usb_host.h"
#include "board/kit/usb/wire.h"

namespace {

using board::exists;
using board::KernelGadget;
using board::noise;
using board::PcmPlayer;
using board::PcmRecorder;
using board::UsbHost;
using board::waitFor;
using board::Wire;

constexpr char kGadgetPcm[] = "hw:UAC2Gadget";
constexpr int64_t kEnoughFrames = 4800;
constexpr int kCycles = 40;  // of loading and unloading
constexpr int kUses = 1000;  // of an endpoint
constexpr int64_t kKeptBytes =
    16 << 10;  // of either kind, in all of them: the smallest piece is 128

// 0, or the errno that refused it.
int unload() {
    return syscall(SYS_delete_module, "usb_wire", O_NONBLOCK) == 0 ? 0 : errno;
}

void load() {
    ASSERT_EQ(system("modprobe usb_wire"), 0);
}

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
    // Takes the module out from under whatever there is, and puts it back.
    void reload() {
        ASSERT_EQ(unload(), 0);
        EXPECT_FALSE(exists("/proc/usb_wire"));
        EXPECT_FALSE(exists("/dev/usb_wire"));
        EXPECT_FALSE(exists(std::string("/sys/class/udc/") + board::kUdc));
        EXPECT_FALSE(UsbHost::hasCard());
        load();
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

// What is done to the wire while streams run, before the module goes.
class StreamingModule : public Module, public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(, StreamingModule,
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

// What the kernel holds for itself.
struct KernelMemory {
    int64_t slabBytes;
    int64_t vmallocBytes;
};

KernelMemory kernelMemory() {
    KernelMemory memory{};
    std::istringstream lines(board::contents("/proc/meminfo"));
    std::string key;
    for (int64_t kilobytes = 0; lines >> key; lines.ignore(80, '\n')) {
        lines >> kilobytes;
        if (key == "SUnreclaim:") {
            memory.slabBytes = kilobytes * 1024;
        } else if (key == "VmallocUsed:") {
            memory.vmallocBytes = kilobytes * 1024;
        }
    }
    return memory;
}

void expectNothingKept(const KernelMemory& before) {
    const KernelMemory after = kernelMemory();
    EXPECT_LT(after.slabBytes - before.slabBytes, kKeptBytes);
    EXPECT_LT(after.vmallocBytes - before.vmallocBytes, kKeptBytes);
}

TEST_F(Module, LeavesNothingBehind) {
    reload();
    const KernelMemory before = kernelMemory();
    for (int i = 0; i < kCycles; ++i) {
        reload();
    }
    expectNothingKept(before);
}

TEST_F(Module, LeavesNothingOfAnEndpointBehind) {
    gadget = std::make_unique<KernelGadget>("SourceSink");
    gadget->bind();
    ASSERT_TRUE(waitFor([] { return UsbHost::attribute("bConfigurationValue") == "1"; }));
    board::UsbDevice device;
    std::string data(512, '\0');
    const auto use = [&](int times) {
        for (int i = 0; i < times; ++i) {
            device.claim(0);
            ASSERT_EQ(device.bulk(0x81, &data), 512);
        }
    };
    use(kCycles);
    const KernelMemory before = kernelMemory();
    use(kUses);
    expectNothingKept(before);
}

}  // namespace
