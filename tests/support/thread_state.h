// SPDX-License-Identifier: Apache-2.0
// What a thread of this process is doing, as the kernel shows it. Any thread.
#pragma once

#include <fstream>
#include <string>

#include <sys/types.h>

namespace uafd {

// Whether the thread sleeps in the kernel.
inline bool isAsleep(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t name = line.rfind(')');
    return name != std::string::npos && line.compare(name + 1, 2, " S") == 0;
}

}  // namespace uafd
