// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/kernel_gadget.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include <sys/stat.h>
#include <sys/syscall.h>

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

void makeFolder(const std::string& folder) {
    if (mkdir(folder.c_str(), 0755) != 0) {
        fail("making " + folder);
    }
}

// What is given, and for an audio function of the kernel's what makes it mono.
std::map<std::string, std::string> attributesOf(const std::string& function,
                                                std::map<std::string, std::string> given) {
    if (function.compare(0, 3, "uac") == 0) {
        given.insert(kMono.begin(), kMono.end());
    }
    return given;
}

}  // namespace

KernelGadget::KernelGadget(const std::string& function,
                           const std::map<std::string, std::string>& attributes)
    : functionFolder(kGadget + "/functions/" + function + ".0"),
      attributes(attributesOf(function, attributes)) {
    make();
}

KernelGadget::~KernelGadget() {
    takeApart();
}

void KernelGadget::make() {
    makeFolder(kGadget);
    put(kGadget + "/idVendor", kTestVendor);
    put(kGadget + "/idProduct", kTestProduct);
    makeFolder(kStrings);
    put(kStrings + "/manufacturer", "uafd");
    put(kStrings + "/product", "Board");
    makeFolder(kConfiguration);
    makeFolder(functionFolder);
    for (const auto& [name, value] : attributes) {
        put(functionFolder + "/" + name, value);
    }
    if (symlink(functionFolder.c_str(), kLink.c_str()) != 0) {
        fail("linking " + functionFolder);
    }
}

void KernelGadget::takeApart() {
    if (contents(kGadget + "/UDC").size() > 1) {  // a name; else a line end, or no gadget
        unbind();
    }
    unlink(kLink.c_str());
    for (const std::string& folder : {functionFolder, kConfiguration, kStrings, kGadget}) {
        rmdir(folder.c_str());
    }
}

void KernelGadget::bind() {
    put(kGadget + "/UDC", kUdc);
}

void KernelGadget::unbind() {
    put(kGadget + "/UDC", "\n");
}

std::string KernelGadget::attribute(const std::string& name) const {
    return firstLineOf(functionFolder + "/" + name);
}

std::string KernelGadget::state() {
    return firstLineOf(std::string("/sys/class/udc/") + kUdc + "/state");
}

int unloadModule(const std::string& name) {
    return syscall(SYS_delete_module, name.c_str(), O_NONBLOCK) == 0 ? 0 : errno;
}

void loadModule(const std::string& name) {
    if (system(("modprobe " + name).c_str()) != 0) {
        throw std::runtime_error("the module " + name + " does not load");
    }
}

}  // namespace board
