// SPDX-License-Identifier: Apache-2.0
#include "board/kit/usb/kernel_module.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include <sys/syscall.h>

namespace board {

int unloadModule(const std::string& name) {
    return syscall(SYS_delete_module, name.c_str(), O_NONBLOCK) == 0 ? 0 : errno;
}

void loadModule(const std::string& name) {
    if (system(("modprobe " + name).c_str()) != 0) {
        throw std::runtime_error("the module " + name + " does not load");
    }
}

}  // namespace board
