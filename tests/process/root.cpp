// SPDX-License-Identifier: Apache-2.0
#include "tests/process/root.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

#include <sys/stat.h>

#include "cable/cable_mon.h"

namespace uafd::process {

Root::Root() {
    std::filesystem::create_directories(path("/tmp"));
    put("/proc/asound/card0/id", "rockchiprt5640c\n");
    put("/run/properties/sys.usb.controller", kCableRkController);
    put("/run/properties/sys.usb.config", "uac2,adb");
    setUsbState("CONFIGURED");
    setCable(true);
    setOwnCapture(true);
}

std::string Root::contents(const std::string& name) const {
    std::ifstream file(path(name));
    return {std::istreambuf_iterator<char>(file), {}};
}

void Root::makeFifos() const {
    // An existing FIFO stays.
    mkfifo(path(kFifoRx).c_str(), 0600);
    mkfifo(path(kFifoTx).c_str(), 0600);
}

void Root::removeFifo(const std::string& name) const {
    unlink(path(name).c_str());
}

void Root::setUsbState(const std::string& word) const {
    put(kCableUsbStatePath, word + "\n");
}

void Root::setCable(bool plugged) const {
    put(kCablePlugStatePath, plugged ? "1\n" : "0\n");
}

void Root::setOwnCapture(bool running) const {
    put("/proc/asound/card0/pcm0c/sub0/status",
        running
            ? "state: RUNNING\nowner_pid   : 1\ntrigger_time: 1.0\ntstamp      : 1000.000000001\n"
            : "closed\n");
}

void Root::put(const std::string& name, const std::string& text) const {
    const std::string file = path(name);
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file, std::ios::binary) << text;
}

}  // namespace uafd::process
