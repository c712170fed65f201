// SPDX-License-Identifier: Apache-2.0
// setprop NAME VALUE: sets a system property of the simulated board, one file per property. Setting
// "sys.usb.config", even to the value it has, re-enumerates the gadget, as the real board's
// platform does; a restart of the USB controller is asked for in just this way. With real USB the
// gadget named "board" is bound again to the controller of the property "sys.usb.controller".
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

constexpr char kPropertyDir[] = "/run/properties/";
constexpr char kUsbConfig[] = "sys.usb.config";
constexpr char kUsbHost[] = "/dev/usb_host";
constexpr char kReenumerate[] = "reenumerate";
constexpr char kController[] = "/run/properties/sys.usb.controller";
constexpr char kGadgetsController[] = "/sys/kernel/config/usb_gadget/board/UDC";

bool writeFile(const char* path, int flags, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC | flags, 0644);
    if (fd < 0) {
        return false;
    }
    const ssize_t written = write(fd, text.data(), text.size());
    const int error = errno;
    close(fd);
    errno = error;
    return written == static_cast<ssize_t>(text.size());
}

bool fail(const char* path) {
    fprintf(stderr, "setprop: %s: %s\n", path, strerror(errno));
    return false;
}

// Readers see the old value or the new one, never half of it.
bool setProperty(const std::string& name, const std::string& value) {
    const std::string path = kPropertyDir + name;
    const std::string fresh = kPropertyDir + ("." + name) + "." + std::to_string(getpid());
    if (!writeFile(fresh.c_str(), O_CREAT | O_TRUNC, value) ||
        rename(fresh.c_str(), path.c_str()) != 0) {
        return fail(path.c_str());
    }
    return true;
}

// Refused when it is not bound, or has no controller; whoever sets a property does not hear of it.
void bindAgain() {
    std::string controller;
    std::getline(std::ifstream(kController), controller);
    writeFile(kGadgetsController, 0, "\n");
    writeFile(kGadgetsController, 0, controller);
}

bool reenumerate() {
    if (access(kUsbHost, F_OK) != 0) {
        bindAgain();
        return true;
    }
    return writeFile(kUsbHost, 0, kReenumerate) || fail(kUsbHost);
}

}  // namespace

int main(int argc, char** argv) {
    // An unquoted empty value leaves the shell as no argument at all.
    if (argc < 2 || argc > 3 || strchr(argv[1], '/') != nullptr || argv[1][0] == '\0') {
        fputs("usage: setprop NAME VALUE\n", stderr);
        return 1;
    }
    if (!setProperty(argv[1], argc == 3 ? argv[2] : "")) {
        return 1;
    }
    return strcmp(argv[1], kUsbConfig) != 0 || reenumerate() ? 0 : 1;
}
