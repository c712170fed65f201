// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/usb_host.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

namespace board {
namespace {

const std::string kDevice = "/sys/bus/usb/devices/1-1/";
constexpr unsigned kTimeoutMs = 1000;

// As the kernel's drivers/usb/misc/usbtest.c has it.
struct TestParameters {
    uint32_t test;
    uint32_t iterations;
    uint32_t length;
    uint32_t vary;
    uint32_t lists;
    uint32_t seconds;
    uint32_t microseconds;
};
constexpr unsigned long kTestRequest = _IOWR('U', 100, TestParameters);

std::string devicePath() {
    char path[40];
    snprintf(path, sizeof path, "/dev/bus/usb/%03d/%03d",
             atoi(UsbHost::attribute("busnum").c_str()),
             atoi(UsbHost::attribute("devnum").c_str()));
    return path;
}

// What the call returns, or a negative error.
int call(const Fd& fd, unsigned long request, void* argument) {
    const int result = ioctl(fd.get(), request, argument);
    return result < 0 ? -errno : result;
}

void require(int result, const char* what) {
    if (result < 0) {
        errno = -result;
        fail(what);
    }
}

}  // namespace

bool UsbHost::hasDevice() {
    return exists(kDevice);
}

bool UsbHost::hasCard() {
    return exists("/proc/asound/card2/usbid");
}

bool UsbHost::waitForCard(bool there, Ns limit) {
    return waitFor([there] { return hasCard() == there; }, limit);
}

std::string UsbHost::attribute(const std::string& name) {
    return firstLineOf(kDevice + name);
}

void UsbHost::configure(int configuration) {
    put(kDevice + "bConfigurationValue", std::to_string(configuration));
}

void UsbHost::allowSuspend(bool allow) {
    put(kDevice + "power/autosuspend_delay_ms", "0");
    put(kDevice + "power/control", allow ? "auto" : "on");
}

UsbDevice::UsbDevice() : file(Fd::open(devicePath(), O_RDWR)) {}

int UsbDevice::reset() {
    return call(file, USBDEVFS_RESET, nullptr);
}

void UsbDevice::claim(int alternate) {
    unsigned interface = 0;
    require(call(file, USBDEVFS_CLAIMINTERFACE, &interface), "claiming the interface");
    usbdevfs_setinterface setting{0, static_cast<unsigned>(alternate)};
    require(call(file, USBDEVFS_SETINTERFACE, &setting), "setting the interface");
}

int UsbDevice::control(uint8_t type, uint8_t request, uint16_t value, uint16_t index,
                       std::string* data) {
    usbdevfs_ctrltransfer transfer{
        type, request, value, index, static_cast<uint16_t>(data->size()), kTimeoutMs, data->data()};
    return call(file, USBDEVFS_CONTROL, &transfer);
}

int UsbDevice::bulk(uint8_t endpoint, std::string* data) {
    usbdevfs_bulktransfer transfer{endpoint, static_cast<unsigned>(data->size()), kTimeoutMs,
                                   data->data()};
    return call(file, USBDEVFS_BULK, &transfer);
}

std::vector<IsoPacket> UsbDevice::iso(uint8_t endpoint, int count, unsigned bytes) {
    const size_t packets = static_cast<size_t>(count);
    const auto memory = std::make_unique<uint64_t[]>(
        (sizeof(usbdevfs_urb) + packets * sizeof(usbdevfs_iso_packet_desc)) / sizeof(uint64_t) + 1);
    std::string data(packets * bytes, '\0');
    auto* urb = reinterpret_cast<usbdevfs_urb*>(memory.get());
    urb->type = USBDEVFS_URB_TYPE_ISO;
    urb->flags = USBDEVFS_URB_ISO_ASAP;
    urb->endpoint = endpoint;
    urb->buffer = data.data();
    urb->buffer_length = static_cast<int>(data.size());
    urb->number_of_packets = count;
    for (size_t i = 0; i < packets; ++i) {
        urb->iso_frame_desc[i].length = bytes;
    }
    require(call(file, USBDEVFS_SUBMITURB, urb), "submitting isochronous packets");
    void* done = nullptr;
    require(call(file, USBDEVFS_REAPURB, static_cast<void*>(&done)), "reaping isochronous packets");
    std::vector<IsoPacket> results;
    for (size_t i = 0; i < packets; ++i) {
        const usbdevfs_iso_packet_desc& packet = urb->iso_frame_desc[i];
        results.push_back({static_cast<int>(packet.status), packet.actual_length});
    }
    return results;
}

int UsbDevice::runTest(unsigned test, unsigned iterations, unsigned length, unsigned vary,
                       unsigned lists) {
    TestParameters parameters{test, iterations, length, vary, lists, 0, 0};
    usbdevfs_ioctl wrapper{0, static_cast<int>(kTestRequest), &parameters};
    return call(file, USBDEVFS_IOCTL, &wrapper);
}

}  // namespace board
