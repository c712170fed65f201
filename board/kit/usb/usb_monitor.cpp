// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/usb_monitor.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include <sys/ioctl.h>

#include "board/kit/usb/kernel_gadget.h"

namespace board {
namespace {

// As the kernel's drivers/usb/mon/mon_bin.c has it, and Documentation/usb/usbmon.rst.
struct Header {
    uint64_t id;
    uint8_t type;  // 'S' for a URB's begin, 'C' for its end, 'E' for one that could not begin
    uint8_t transferType;
    uint8_t endpoint;
    uint8_t device;
    uint16_t bus;
    char hasSetup;  // 0: it has
    char hasData;   // 0: it has
    int64_t seconds;
    int32_t microseconds;
    int32_t status;
    uint32_t length;    // of the URB's data
    uint32_t captured;  // bytes that follow
    uint8_t setup[8];
    int32_t interval;
    int32_t startFrame;
    uint32_t flags;
    uint32_t packets;  // whose descriptions follow, isochronous
};
static_assert(sizeof(Header) == 64, "usbmon's header");
struct PacketHeader {
    int32_t status;
    uint32_t offset;
    uint32_t length;
    uint32_t padding;
};
struct GetArgument {
    Header* header;
    void* data;
    size_t size;
};
constexpr unsigned long kGet = _IOW(0x92, 10, GetArgument);

constexpr uint8_t kIn = 0x80;
constexpr uint8_t kRootHub = 1;
enum : uint8_t { kIsochronous = 0, kControl = 2 };

}  // namespace

struct UsbMonitor::Event {
    Header header;
    std::string data;

    std::vector<PacketHeader> packets() const {
        std::vector<PacketHeader> packets(header.packets);
        memcpy(packets.data(), data.data(), packets.size() * sizeof packets[0]);
        return packets;
    }
    // Without the packets' descriptions.
    std::string bytes() const { return data.substr(header.packets * sizeof(PacketHeader)); }
};

UsbMonitor::UsbMonitor() {
    loadModule("usbmon");
    file = Fd::open("/dev/usbmon0", O_RDONLY | O_NONBLOCK);
}

bool UsbMonitor::read(Event* event) const {
    event->data.resize(1 << 16);
    GetArgument argument{&event->header, event->data.data(), event->data.size()};
    if (ioctl(file.get(), kGet, &argument) != 0) {
        if (errno == EWOULDBLOCK) {
            return false;
        }
        fail("reading from usbmon");
    }
    event->data.resize(event->header.captured);
    return true;
}

UsbTransfer UsbMonitor::ended(const Event& event, const std::string& sent) {
    const Header& header = event.header;
    UsbTransfer transfer{header.endpoint, header.transferType == kControl, {}, header.status, {}};
    const bool isIn = (header.endpoint & kIn) != 0;
    const std::string data = isIn ? event.bytes() : sent;
    if (header.transferType != kIsochronous) {
        transfer.packets.push_back({header.status, data});
        return transfer;
    }
    for (const PacketHeader& packet : event.packets()) {
        transfer.packets.push_back({packet.status, data.substr(packet.offset, packet.length)});
    }
    return transfer;
}

std::vector<UsbTransfer> UsbMonitor::take() {
    std::vector<UsbTransfer> transfers;
    for (Event event{}; read(&event);) {
        const Header& header = event.header;
        if (header.device == kRootHub) {
            continue;
        }
        if (header.type == 'S') {
            sent[header.id].assign(reinterpret_cast<const char*>(header.setup), 8);
            sent[header.id] += event.bytes();
            continue;
        }
        const std::string begin = sent[header.id];
        sent.erase(header.id);
        if (header.type == 'C' && begin.size() >= 8) {
            transfers.push_back(ended(event, begin.substr(8)));
            memcpy(transfers.back().setup.data(), begin.data(), 8);
        }
    }
    return transfers;
}

}  // namespace board
