// SPDX-License-Identifier: Apache-2.0
// The USB wire keeps no memory. On one processor the kernel's own bookkeeping is the same every
// time.
#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "board/kit/clock.h"
#include "board/kit/files.h"
#include "board/kit/usb/kernel_gadget.h"
#include "board/kit/usb/usb_host.h"
#include "tests/board/usb/usb_case.h"

namespace uafd {
namespace {

using namespace board;

constexpr int kCycles = 40;               // of loading and unloading
constexpr int kUses = 2000;               // of an endpoint
constexpr int kWarmUps = 10;              // of either, after which caches are full
constexpr int64_t kKeptBytes = 32 << 10;  // of either kind, in all of them; 12 kB come and go

// What has been given back still counts for a while: memory and the stacks of ended threads wait
// for a grace period and then, by the kernel's choice, up to five seconds more; and a slab counts
// as long as one object in it is in use, which for the larger sizes is 32 kB each.
void sweep() {
    sleepFor(6 * kSecond);
    for (const auto& cache : std::filesystem::directory_iterator("/sys/kernel/slab")) {
        put(cache.path().string() + "/shrink", "1");
    }
}

// What the kernel holds for itself.
struct KernelMemory {
    int64_t slabBytes;
    int64_t vmallocBytes;
};

KernelMemory kernelMemory() {
    sweep();
    KernelMemory memory{};
    std::istringstream lines(contents("/proc/meminfo"));
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

// The first sweep leaves the names of its files in the kernel's caches.
KernelMemory baseline() {
    sweep();
    return kernelMemory();
}

void expectNothingKept(const KernelMemory& before) {
    const KernelMemory after = kernelMemory();
    EXPECT_LT(after.slabBytes - before.slabBytes, kKeptBytes);
    EXPECT_LT(after.vmallocBytes - before.vmallocBytes, kKeptBytes);
}

TEST(Memory, IsKeptByNoModuleThatWent) {
    for (int i = 0; i < kWarmUps; ++i) {
        reloadWire();
    }
    const KernelMemory before = baseline();
    for (int i = 0; i < kCycles; ++i) {
        reloadWire();
    }
    expectNothingKept(before);
}

TEST(Memory, IsKeptByNoEndpointThatWent) {
    KernelGadget gadget("SourceSink");
    gadget.bind();
    ASSERT_TRUE(waitFor([] { return UsbHost::attribute("bConfigurationValue") == "1"; }));
    UsbDevice device;
    std::string data(512, '\0');
    // Without a configuration the gadget's own buffers are gone.
    const auto use = [&](int times) {
        UsbHost::configure(1);
        for (int i = 0; i < times; ++i) {
            device.claim(0);
            ASSERT_EQ(device.bulk(0x81, &data), 512);
        }
        UsbHost::configure(0);
    };
    use(kWarmUps);
    const KernelMemory before = baseline();
    use(kUses);
    expectNothingKept(before);
}

}  // namespace
}  // namespace uafd
