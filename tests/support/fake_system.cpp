// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_system.h"

#include <filesystem>
#include <fstream>

namespace uafd {
namespace {

constexpr char kCard[] = "/proc/asound/card1/";

}  // namespace

FakeSystem::FakeSystem() {
    setGadget("CONFIGURED");
    put("/proc/uptime", "93784.00 1000.00\n");
    put("/proc/locks", "");
    put("/proc/asound/cards",
        " 0 [Codec          ]: Codec - The board's own\n"
        "                      The board's own\n"
        " 1 [Gadget         ]: Vexa_Gadget - Vexa_Gadget\n"
        "                      Vexa_Gadget behind a USB host\n");
    closePcm("pcm0c");
    closePcm("pcm0p");
}

void FakeSystem::setGadget(const std::string& state) const {
    put("/sys/devices/virtual/android_usb/android0/state", state + "\n");
}

void FakeSystem::removeCard() const {
    put("/proc/asound/cards", "--- no soundcards ---\n");
}

void FakeSystem::closePcm(const std::string& name) const {
    put(kCard + name + "/sub0/status", "closed\n");
    put(kCard + name + "/sub0/hw_params", "closed\n");
}

void FakeSystem::runPcm(const std::string& name, int moved, int waiting,
                        const std::string& started) const {
    put(kCard + name + "/sub0/hw_params",
        "access: RW_INTERLEAVED\nformat: S16_LE\nsubformat: STD\nchannels: 1\n"
        "rate: 48000 (48000/1)\nperiod_size: 240\nbuffer_size: 2400\n");
    put(kCard + name + "/sub0/status",
        "state: RUNNING\nowner_pid   : 4711\ntrigger_time: " + started +
            "\ntstamp      : 0.000000000\ndelay       : " + std::to_string(waiting) +
            "\navail       : 62\navail_max   : 240\n-----\nhw_ptr      : " + std::to_string(moved) +
            "\nappl_ptr    : 0\n");
}

void FakeSystem::setPcmState(const std::string& name, const std::string& state) const {
    put(kCard + name + "/sub0/status", "state: " + state + "\ntrigger_time: 1.0\n");
}

void FakeSystem::addProcess(int pid, const std::string& name, char letter) const {
    const std::string process = "/proc/" + std::to_string(pid);
    put(process + "/comm", name + "\n");
    put(process + "/stat", std::to_string(pid) + " (" + name + ") " + letter +
                               " 1 4711 4711 0 -1 4194560 1 0 0 0 120 30 0 0 20 0 6 0 5000 "
                               "12345678 790 18446744073709551615 1\n");
    std::filesystem::create_directories(path() + process + "/fd");
}

void FakeSystem::openFile(int pid, int fd, const std::string& file,
                          const std::string& flags) const {
    const std::string process = "/proc/" + std::to_string(pid);
    const std::string name = "/" + std::to_string(fd);
    std::filesystem::create_symlink(file, path() + process + "/fd" + name);
    put(process + "/fdinfo" + name, "pos:\t0\nflags:\t" + flags + "\nmnt_id:\t15\n");
}

void FakeSystem::addService(const std::string& answer) const {
    std::filesystem::create_directories(path() + "/run/systemd/system");
    put("/bin/systemctl",
        "#!/bin/sh\necho \"$0 $*\" >>" + path() + "/asked\nprintf '" + answer + "'\n");
    std::filesystem::permissions(programs() + "/systemctl", std::filesystem::perms::owner_all);
}

// In one step, so that a reader never finds a part of it.
void FakeSystem::put(const std::string& name, const std::string& text) const {
    const std::string file = path() + name;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file + ".new", std::ios::binary) << text;
    std::filesystem::rename(file + ".new", file);
}

}  // namespace uafd
