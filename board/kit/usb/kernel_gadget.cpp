// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/kernel_gadget.h"

#include <unistd.h>

#include <sys/stat.h>

#include "board/kit/files.h"

namespace board {
namespace {

const std::string kGadget = "/sys/kernel/config/usb_gadget/board";
const std::string kStrings = kGadget + "/strings/0x409";
const std::string kConfiguration = kGadget + "/configs/c.1";
const std::string kLink = kConfiguration + "/function";

// The numbers that the kernel's own test driver, usbtest, goes by; audio needs none.
constexpr char kTestVendor[] = "0x0525";
constexpr char kTestProduct[] = "0xa4a0";

const std::map<std::string, std::string> kMono = {{"c_chmask", "1"},    {"c_srate", "48000"},
                                                  {"c_ssize", "2"},     {"p_chmask", "1"},
                                                  {"p_srate", "48000"}, {"p_ssize", "2"}};

void make(const std::string& folder) {
    if (mkdir(folder.c_str(), 0755) != 0) {
        fail("making " + folder);
    }
}

std::string firstLine(const std::string& path) {
    const std::string text = contents(path);
    return text.substr(0, text.find('\n'));
}

bool isAudio(const std::string& function) {
    return function.compare(0, 3, "uac") == 0;
}

}  // namespace

KernelGadget::KernelGadget(const std::string& function,
                           const std::map<std::string, std::string>& attributes)
    : functionFolder(kGadget + "/functions/" + function + ".0") {
    make(kGadget);
    put(kGadget + "/idVendor", kTestVendor);
    put(kGadget + "/idProduct", kTestProduct);
    make(kStrings);
    put(kStrings + "/manufacturer", "uafd");
    put(kStrings + "/product", "Board");
    make(kConfiguration);
    make(functionFolder);
    if (isAudio(function)) {
        makeFunction(kMono);
    }
    makeFunction(attributes);
    if (symlink(functionFolder.c_str(), kLink.c_str()) != 0) {
        fail("linking " + functionFolder);
    }
}

KernelGadget::~KernelGadget() {
    if (contents(kGadget + "/UDC") != "\n") {
        unbind();
    }
    unlink(kLink.c_str());
    for (const std::string& folder : {functionFolder, kConfiguration, kStrings, kGadget}) {
        rmdir(folder.c_str());
    }
}

void KernelGadget::makeFunction(const std::map<std::string, std::string>& attributes) const {
    for (const auto& [name, value] : attributes) {
        put(functionFolder + "/" + name, value);
    }
}

void KernelGadget::bind() {
    put(kGadget + "/UDC", kUdc);
}

void KernelGadget::unbind() {
    put(kGadget + "/UDC", "\n");
}

std::string KernelGadget::attribute(const std::string& name) const {
    return firstLine(functionFolder + "/" + name);
}

std::string KernelGadget::state() {
    return firstLine(std::string("/sys/class/udc/") + kUdc + "/state");
}

}  // namespace board
