// SPDX-License-Identifier: Apache-2.0
// The USB wire keeps no memory. On one processor the kernel's own bookkeeping is the same every
// time.
#include <cstdint>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/usb_host.h"
#include "tests/board/usb/wire_module.h"

namespace {

using board::KernelGadget;
using board::waitFor;

constexpr int kCycles = 40;               // of loading and unloading
constexpr int kUses = 1000;               // of an endpoint
constexpr int kWarmUps = 10;              // of either, after which caches are full
constexpr int64_t kKeptBytes = 32 << 10;  // of either kind, in all of them

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

TEST(Memory, IsKeptByNoModuleThatWent) {
    for (int i = 0; i < kWarmUps; ++i) {
        reload();
    }
    const KernelMemory before = kernelMemory();
    for (int i = 0; i < kCycles; ++i) {
        reload();
    }
    expectNothingKept(before);
}

TEST(Memory, IsKeptByNoEndpointThatWent) {
    KernelGadget gadget("SourceSink");
    gadget.bind();
    ASSERT_TRUE(waitFor([] { return board::UsbHost::attribute("bConfigurationValue") == "1"; }));
    board::UsbDevice device;
    std::string data(512, '\0');
    const auto use = [&](int times) {
        for (int i = 0; i < times; ++i) {
            device.claim(0);
            ASSERT_EQ(device.bulk(0x81, &data), 512);
        }
    };
    use(kWarmUps);
    const KernelMemory before = kernelMemory();
    use(kUses);
    expectNothingKept(before);
}

}  // namespace
