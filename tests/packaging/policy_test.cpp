// SPDX-License-Identifier: Apache-2.0
// The Android policy in a kernel: the daemon and the app, each in its domain, the app with
// categories, do their work, and SELinux denies none of it. The kernel logs denials but permits the
// access, because only those of the platform's own rules are there that concern the daemon. The
// cases are one story, in this order.
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/klog.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include "board/kit/board.h"
#include "board/kit/files.h"
#include "board/kit/host.h"
#include "board/kit/service.h"
#include "tests/support/child_process.h"

namespace uafd {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kControlDevice[] = "/dev/uac_user";
constexpr rlim_t kServicePriority = 58;
constexpr int kReadWholeLog = 3;  // klogctl

// Access to objects of these types is for this policy to allow.
constexpr const char* kTypes[] = {
    "uafd",         "uafd_dir",    "uafd_fifo",         "uafd_socket",      "uafd_device",
    "audio_device", "proc_asound", "sysfs_android_usb", "sysfs_uafd_cable", "platform_app"};

void label(const std::string& path, const std::string& context) {
    if (setxattr(path.c_str(), "security.selinux", context.c_str(), context.size() + 1, 0) != 0) {
        board::fail("labelling " + path);
    }
}

std::string labelOf(const std::string& path) {
    char context[128] = "";
    getxattr(path.c_str(), "security.selinux", context, sizeof context - 1);
    return context;
}

// Sets the machine up as the platform and uafd.rc do.
void setUp() {
    board::put("/proc/sys/kernel/printk_ratelimit", "0");
    board::outputOf("mount -t selinuxfs selinuxfs /sys/fs/selinux");
    board::put("/sys/fs/selinux/load", board::contents("/policy"));
    std::string options = board::contents("/tmp_options");
    options.erase(options.find_last_not_of('\n') + 1);
    if (mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, options.c_str()) != 0) {
        board::fail("mounting /tmp");
    }
    if (mknod(kControlDevice, S_IFCHR | 0660, makedev(122, 0)) != 0) {
        board::fail("making the control device's node");
    }
    label(kControlDevice, "u:object_r:uafd_device:s0");
    label("/dev/snd", "u:object_r:audio_device:s0");
    for (const auto& node : std::filesystem::directory_iterator("/dev/snd")) {
        label(node.path(), "u:object_r:audio_device:s0");
    }
    setenv("TMPDIR", "/out", 1);  // away from /tmp, where only the daemon's files are wanted
}

// For a new process: the program that it executes runs in the domain.
std::function<void()> into(const char* context) {
    return [context] {
        const rlimit limit{kServicePriority, kServicePriority};
        setrlimit(RLIMIT_RTPRIO, &limit);
        board::put("/proc/self/attr/exec", context);
    };
}

std::string kernelLog() {
    std::string log(1 << 20, '\0');
    const int size = klogctl(kReadWholeLog, log.data(), static_cast<int>(log.size()));
    log.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return log;
}

// Denials of the daemon or the app that this policy should allow.
std::vector<std::string> denials() {
    std::vector<std::string> found;
    std::istringstream lines(kernelLog());
    for (std::string line; std::getline(lines, line);) {
        const size_t target = line.find("tcontext=");
        const bool ours = line.find("scontext=u:r:uafd:") != std::string::npos ||
                          line.find("scontext=u:r:platform_app:") != std::string::npos;
        for (const std::string type : kTypes) {
            if (ours && line.find(":" + type + ":", target) != std::string::npos) {
                found.push_back(line);
            }
        }
    }
    return found;
}

class Policy : public testing::Test {
  protected:
    static void SetUpTestSuite() { setUp(); }

    // Runs the daemon with an app, from start to end.
    static void run(const std::string& name) {
        board::Host host;
        host.reset();
        const board::HostPlayer player(board::noise);
        board::Daemon daemon(name);
        ChildProcess app({"/bin/uafd-companion", "check"}, into("u:r:platform_app:s0:c0"));
        daemon.start(into("u:r:uafd:s0"));
        host.command("speaker on");
        host.command("mic on");
        EXPECT_EQ(app.wait(), 0) << app.output() << app.errors();
        EXPECT_EQ(labelOf(board::kSocketTx), "u:object_r:uafd_socket:s0");
        host.reset();
    }

    const board::MicService micService;
};

TEST_F(Policy, LabelsTheMount) {
    EXPECT_EQ(labelOf("/tmp"), "u:object_r:uafd_dir:s0");
}

// Only the script runs: there is no daemon for it to start.
TEST_F(Policy, AllowsTheScriptsFifos) {
    ChildProcess script({"/bin/sh", "/uafd_start"}, into("u:r:uafd:s0"));
    script.wait();
    EXPECT_EQ(labelOf(board::kFifoRx), "u:object_r:uafd_fifo:s0");
    EXPECT_EQ(labelOf(board::kFifoTx), "u:object_r:uafd_fifo:s0");
    run("script");
    EXPECT_THAT(denials(), IsEmpty());
}

TEST_F(Policy, AllowsTheAppsFifos) {
    unlink(board::kFifoRx);
    unlink(board::kFifoTx);
    run("app");
    EXPECT_EQ(labelOf(board::kFifoRx), "u:object_r:uafd_fifo:s0:c0");
    EXPECT_EQ(labelOf(board::kFifoTx), "u:object_r:uafd_fifo:s0:c0");
    EXPECT_THAT(denials(), IsEmpty());
}

// The policy allows hardly any access to the board's own files, so their use must show as denials.
TEST_F(Policy, IsAskedForBoth) {
    EXPECT_THAT(kernelLog(), HasSubstr("scontext=u:r:uafd:s0"));
    EXPECT_THAT(kernelLog(), HasSubstr("scontext=u:r:platform_app:s0:c0"));
}

}  // namespace
}  // namespace uafd
