// SPDX-License-Identifier: Apache-2.0
// The Debian package on a board with systemd. Installed, it runs the daemon as a service without
// privileges; the service does its main job, is restarted when it dies, and is gone when the
// package is removed. The cases are one story, in this order.
#include <algorithm>
#include <csignal>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "board/kit/app_process.h"
#include "board/kit/board.h"
#include "board/kit/host.h"
#include "board/kit/service.h"
#include "tests/support/child_process.h"

namespace uafd {
namespace {

using board::contents;
using board::kSecond;
using board::outputOf;
using board::serviceProperty;
using board::waitFor;

constexpr char kController[] = "/run/properties/sys.usb.controller";
constexpr char kConfig[] = "/run/properties/sys.usb.config";
constexpr char kAgeing[] = "/etc/tmpfiles.d/tmp.conf";
constexpr char kAbandoned[] = "/tmp/abandoned";

std::string processFile(const std::string& name) {
    return "/proc/" + std::to_string(board::servicePid()) + "/" + name;
}

// "Key:\tvalue" of the daemon's /proc/PID/status.
std::string statusOf(const std::string& key) {
    const std::string status = contents(processFile("status"));
    const size_t at = status.find("\n" + key + ":\t");
    const size_t begin = at + key.size() + 3;
    return at == std::string::npos ? "" : status.substr(begin, status.find('\n', begin) - begin);
}

// "mode user group type major:minor"
std::string kindOf(const std::string& path) {
    return outputOf("stat -c '%a %U %G %F %t:%T' " + path);
}

bool streams(board::AppProcess* app, board::Host* host) {
    const int64_t before = app->heardSound();
    const board::HostPlayer player(board::noise);
    host->command("speaker on");
    const bool heard = waitFor([&] { return app->heardSound() > before + board::kRate / 2; });
    host->command("speaker off");
    return heard;
}

void becomeAppOfTheGroup() {
    board::joinServiceGroup();
    board::becomeUnprivileged();
}

class AppOfTheGroup : public board::AppProcess {
  public:
    AppOfTheGroup() : AppProcess({}, becomeAppOfTheGroup) {}
};

TEST(Package, InstallsItsServiceAndStartsIt) {
    board::put("/out/dpkg.txt", outputOf("dpkg -i /packages/uafd_*.deb 2>&1"));
    EXPECT_EQ(outputOf("systemctl is-enabled uafd.service uafd-usb-restart.path"),
              "enabled\nenabled");
    EXPECT_EQ(outputOf("systemctl is-active uafd.service uafd-usb-restart.path"), "active\nactive");
    EXPECT_EQ(outputOf("readlink " + processFile("exe")), "/usr/sbin/uafd");
}

TEST(Package, RunsTheDaemonWithoutPrivileges) {
    EXPECT_EQ(statusOf("CapEff"), "0000000000000000");
    EXPECT_EQ(statusOf("CapBnd"), "0000000000000000");
    EXPECT_EQ(statusOf("NoNewPrivs"), "1");
    EXPECT_EQ(statusOf("Seccomp"), "2");
    const std::string user = outputOf("id -u uafd");
    EXPECT_EQ(statusOf("Uid"), user + "\t" + user + "\t" + user + "\t" + user);
}

TEST(Package, MakesNodeFifosAndProperties) {
    EXPECT_EQ(kindOf("/dev/uac_user"), "660 root uafd character special file 7a:0");
    EXPECT_EQ(kindOf(board::kFifoRx), "660 root uafd fifo 0:0");
    EXPECT_EQ(kindOf(board::kFifoTx), "660 root uafd fifo 0:0");
    EXPECT_EQ(kindOf("/run/properties"), "775 root uafd directory 0:0");
}

TEST(Package, KeepsSoundServersOffTheGadgetCardAlone) {
    const std::string ignored = "ACP_IGNORE=1\nPULSE_IGNORE=1";
    const std::string query =
        "udevadm info -q property --property=ACP_IGNORE "
        "--property=PULSE_IGNORE /sys/class/sound/card";
    EXPECT_TRUE(waitFor([&] { return outputOf(query + "1") == ignored; })) << outputOf(query + "1");
    EXPECT_EQ(outputOf(query + "0"), "");
}

TEST(Package, ServesAnAppOfItsGroupAndComesBackWhenItDies) {
    board::Host host;
    host.reset();
    AppOfTheGroup app;
    // The messages include the configured state, so the daemon reaches the app's socket.
    EXPECT_TRUE(waitFor([&] { return app.messages() > 0; }));
    EXPECT_EQ(kindOf(board::kSocketTx), "770 uafd uafd socket 0:0");
    EXPECT_TRUE(streams(&app, &host));
    const pid_t first = board::servicePid();
    const int64_t messages = app.messages();
    ASSERT_EQ(kill(first, SIGKILL), 0);
    EXPECT_TRUE(waitFor([&] { return app.messages() > messages; }, 10 * kSecond));
    EXPECT_NE(board::servicePid(), first);
    EXPECT_TRUE(streams(&app, &host));
}

void becomeSandboxedAppOfTheGroup() {
    if (unshare(CLONE_NEWNET) != 0) {
        board::fail("entering another network namespace");
    }
    becomeAppOfTheGroup();
}

// Waits until tmpfiles has removed a file that is younger than the sockets and the FIFOs. The app's
// socket is bound in a network namespace of its own, like the daemon's, so tmpfiles does not see
// that they are in use.
TEST(Package, KeepsSocketsAndFifosWhereTmpIsAged) {
    board::Host host;
    host.reset();
    board::AppProcess app({}, becomeSandboxedAppOfTheGroup);
    ASSERT_TRUE(streams(&app, &host));
    // A message to a socket makes the socket's file young again.
    const board::Message off{1, 0};
    ASSERT_TRUE(waitFor([&] {
        const std::vector<board::Message> told = app.messageValues(0);
        return !told.empty() && told.back() == off;
    }));
    board::put(kAgeing, "d /tmp 1777 root root 1s");
    board::put(kAbandoned, "");
    EXPECT_TRUE(waitFor([] {
        outputOf("systemd-tmpfiles --clean tmp.conf uafd.conf");
        return !board::exists(kAbandoned);
    }));
    unlink(kAgeing);
    for (const char* const path :
         {board::kFifoRx, board::kFifoTx, board::kSocketRx, board::kSocketTx}) {
        EXPECT_TRUE(board::exists(path)) << path;
    }
}

TEST(Package, DoesTheMainJob) {
    // An app that systemd keeps from writing in time has its sound stretched.
    EXPECT_EQ(outputOf("nice -n -20 /tests/main_job --stand-in --service 2>&1 >/out/main_job.txt"),
              "");
    EXPECT_EQ(serviceProperty("NRestarts"), "0");
}

TEST(Package, PassesTheCompanionToolsCheck) {
    outputOf("dpkg -i /packages/uafd-companion_*.deb 2>&1");
    unlink(board::kSocketRx);  // belongs to another user, so an app may not replace it in /tmp
    board::Host host;
    host.reset();
    const board::HostPlayer player(board::noise);
    host.command("speaker on");
    host.command("mic on");
    ChildProcess check({"/usr/bin/uafd-companion", "check"}, becomeAppOfTheGroup);
    EXPECT_EQ(check.wait(), 0) << check.output() << check.errors();
    host.reset();
    EXPECT_FALSE(board::exists(board::kSocketRx))
        << "it would keep other users' apps from binding theirs";
    EXPECT_TRUE(board::exists("/usr/share/bash-completion/completions/uafd-companion"));
}

TEST(Package, TellsAnAppOfAnotherGroup) {
    ChildProcess check({"/usr/bin/uafd-companion", "check"}, board::becomeUnprivileged);
    EXPECT_EQ(check.wait(), 1);
    EXPECT_NE(check.output().find("/tmp/usbAudioFifoRx (root:uafd 0660) is not for this process ("),
              std::string::npos)
        << check.output();
    EXPECT_NE(check.output().find("0 passed, 1 failed, 9 not tried"), std::string::npos);
    EXPECT_FALSE(board::exists(board::kSocketRx));
}

TEST(Package, MakesTheHostAnAlsaDevice) {
    outputOf("dpkg -i /packages/libasound2-plugin-uafd_*.deb 2>&1");
    EXPECT_EQ(outputOf("arecord -L | grep -x uafd"), "uafd");
    board::Host host;
    host.reset();
    const board::HostPlayer player(board::noise);
    host.command("speaker on");
    ChildProcess recorder({"/usr/bin/arecord", "-q", "-D", "uafd", "-t", "raw", "-f", "S16_LE",
                           "-c", "2", "-r", "48000", "-d", "1"},
                          becomeAppOfTheGroup);
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    const std::string heard = recorder.output();
    EXPECT_EQ(heard.size(), 4U * board::kRate);
    EXPECT_GT(heard.size() - std::count(heard.begin(), heard.end(), '\0'), 2U * board::kRate);
    const board::Ns since = board::now();
    ChildProcess mixer({"/usr/bin/amixer", "-D", "uafd", "--", "sset", "Speaker", "-10dB"},
                       becomeAppOfTheGroup);
    EXPECT_EQ(mixer.wait(), 0) << mixer.errors();
    EXPECT_TRUE(host.waitForEvents("uac SET_SPK_VOLUME -2560 0", since));
    host.reset();
    // The daemon may write to the socket that the mixer left behind.
    EXPECT_EQ(outputOf("stat -c '%a %G' /tmp/usbAudioUdsIpcRx"), "660 uafd");
    unlink(board::kSocketRx);
}

// The board has no Python, so the module is only found where Debian's looks; with the library it is
// used on the development machine.
TEST(Package, HasThePythonModule) {
    outputOf(
        "dpkg -i --force-depends /packages/libuafd-companion1_*.deb "
        "/packages/python3-uafd-companion_*.deb 2>&1");
    EXPECT_EQ(outputOf("dpkg-query -W -f '${db:Status-Status}' python3-uafd-companion"),
              "installed");
    EXPECT_TRUE(board::exists("/usr/lib/python3/dist-packages/uafd_companion.py"));
    EXPECT_TRUE(board::exists("/usr/share/doc/python3-uafd-companion/examples/record.py"));
    EXPECT_TRUE(board::exists("/usr/lib/aarch64-linux-gnu/libuafd_companion.so.1"));
}

bool hasSound(const std::string& bytes) {
    return bytes.size() - static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\0')) >
           bytes.size() / 4;
}

// The card is the kernel's loopback: its other end is the ear and the mouth of the board's user.
TEST(Package, MakesAHeadsetOfACard) {
    outputOf("modprobe snd-aloop index=5; dpkg -i /packages/uafd-bridge_*.deb 2>&1");
    EXPECT_EQ(serviceProperty("UnitFileState", "uafd-bridge"), "disabled");
    EXPECT_EQ(serviceProperty("ActiveState", "uafd-bridge"), "inactive");
    outputOf("sed -i s/=default/=hw:5,0,0/ /etc/default/uafd-bridge");
    outputOf("systemctl start uafd-bridge");
    board::Host host;
    host.reset();
    const board::HostPlayer player(board::noise);
    host.command("speaker on");
    host.command("mic on");
    ChildProcess mouth({"/usr/bin/aplay", "-q", "-D", "hw:5,1,0", "-t", "raw", "-f", "S16_LE", "-c",
                        "2", "-r", "48000", "-d", "5", "/dev/urandom"});
    const auto hostHears = [&] {
        const board::Samples recorded = host.takeRecording();
        return hasSound(
            {reinterpret_cast<const char*>(recorded.data()), recorded.size() * sizeof recorded[0]});
    };
    board::sleepFor(kSecond / 2);
    host.takeRecording();
    board::sleepFor(kSecond / 4);
    EXPECT_TRUE(hostHears());
    EXPECT_TRUE(hasSound(outputOf("arecord -q -D hw:5,1,0 -t raw -f S16_LE -c 2 -r 48000 -d 1")));
    const std::string process = "/proc/" + serviceProperty("MainPID", "uafd-bridge") + "/";
    EXPECT_EQ(outputOf("tr '\\0' ' ' <" + process + "cmdline"),
              "/usr/bin/uafd-companion bridge --speaker hw:5,0,0 --microphone hw:5,0,0 "
              "--apply-volume ");
    EXPECT_EQ(outputOf("stat -c %U " + process), "uafd");
    EXPECT_EQ(outputOf("cut -d' ' -f40,41 " + process + "stat"), "20 1") << "SCHED_FIFO";
    EXPECT_EQ(outputOf("sed -n 's/^CapEff:\t//p' " + process + "status"), "0000000000000000");
    outputOf("dpkg -P uafd-bridge 2>&1");
    EXPECT_FALSE(board::exists(process));
    EXPECT_FALSE(board::exists(board::kSocketRx));
    EXPECT_FALSE(board::exists("/etc/default/uafd-bridge"));
    host.reset();
}

// Covers the daemon's setprop, the path unit that notices it, and the service that the unit starts.
// The simulated board has no controller on which the service could act.
TEST(Package, RestartsTheGadgetThatDoesNotNoticeItsCable) {
    board::put(kController, "ff300000.usb");
    board::put(kConfig, "uac");
    board::Board whole("restart", board::startService);
    board::joinServiceGroup();
    whole.start();
    whole.host.command("usb_state DISCONNECTED");
    EXPECT_TRUE(waitFor([&] { return whole.daemon.count("Issue: *") > 0; }, 10 * kSecond));
    EXPECT_TRUE(waitFor([] {
        return outputOf(
                   "systemctl show --value --property=Result,ExecMainStartTimestampMonotonic "
                   "uafd-usb-restart.service") != "success\n0";
    }));
    EXPECT_EQ(contents(kConfig), "uac\n");
}

TEST(Package, GoesWhenItIsPurged) {
    outputOf("dpkg -P uafd 2>&1");
    EXPECT_EQ(serviceProperty("LoadState"), "not-found");
    EXPECT_EQ(board::servicePid(), 0);
    EXPECT_FALSE(board::exists("/usr/sbin/uafd"));
    EXPECT_FALSE(board::exists("/etc/systemd/system/multi-user.target.wants/uafd.service"));
}

}  // namespace
}  // namespace uafd
