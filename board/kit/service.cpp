// SPDX-License-Identifier: Apache-2.0
#include "board/kit/service.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <grp.h>
#include <stdexcept>
#include <unistd.h>

#include <sys/resource.h>
#include <sys/stat.h>

#include "board/kit/files.h"

namespace board {
namespace {

constexpr char kDropIn[] = "/run/systemd/system/uafd.service.d";
constexpr char kGroup[] = "uafd";
constexpr uid_t kSomebody = 1000;
constexpr rlim_t kAppPriority = 40;

}  // namespace

std::string outputOf(const std::string& command) {
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        fail(command);
    }
    std::string output;
    char part[4096];
    for (size_t got = 0; (got = fread(part, 1, sizeof part, pipe)) > 0;) {
        output.append(part, got);
    }
    if (pclose(pipe) != 0) {
        throw std::runtime_error(command + " failed: " + output);
    }
    if (!output.empty() && output.back() == '\n') {
        output.pop_back();
    }
    return output;
}

std::string serviceProperty(const std::string& key, const std::string& unit) {
    return outputOf("systemctl show --value --property=" + key + " " + unit);
}

pid_t servicePid() {
    return std::atoi(serviceProperty("MainPID").c_str());
}

pid_t startService(const std::string& logPath) {
    mkdir("/run/systemd/system", 0755);
    mkdir(kDropIn, 0755);
    put(std::string(kDropIn) + "/log.conf", "[Service]\nStandardError=append:" + logPath + "\n");
    outputOf("systemctl daemon-reload");
    outputOf("systemctl restart uafd.service");
    return servicePid();
}

void joinServiceGroup() {
    const group* const entry = getgrnam(kGroup);
    if (entry == nullptr) {
        throw std::runtime_error("the service's group is not there");
    }
    if (setgid(entry->gr_gid) != 0) {
        fail("joining the service's group");
    }
    umask(007);
}

void becomeUnprivileged() {
    const rlimit limit{kAppPriority, kAppPriority};
    if (setrlimit(RLIMIT_RTPRIO, &limit) != 0 || setgroups(0, nullptr) != 0 ||
        setuid(kSomebody) != 0) {
        fail("dropping privileges");
    }
}

void installAlsaDevice() {
    std::filesystem::create_directories("/etc/alsa/conf.d");
    std::filesystem::create_symlink("/usr/share/alsa/alsa.conf.d/60-uafd.conf",
                                    "/etc/alsa/conf.d/60-uafd.conf");
}

}  // namespace board
