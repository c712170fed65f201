// SPDX-License-Identifier: Apache-2.0
// A system's /proc, /sys and /run in a folder, for a program that looks there instead of at the
// real ones: the gadget's card 1, configured by the host and with both streams off, and no daemon.
// One thread.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/temp_dir.h"

namespace uafd {

class FakeSystem {
  public:
    FakeSystem() {
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
    const std::string& path() const { return folder.path(); }

    void setGadget(const std::string& state) const {
        put("/sys/devices/virtual/android_usb/android0/state", state + "\n");
    }
    void removeCard() const { put("/proc/asound/cards", "--- no soundcards ---\n"); }
    // A PCM of the card: "pcm0c" is the speaker's, "pcm0p" the microphone's.
    void closePcm(const std::string& name) const {
        put(kCard + name + "/sub0/status", "closed\n");
        put(kCard + name + "/sub0/hw_params", "closed\n");
    }
    // With frames moved since the start, frames waiting, and when it started.
    void runPcm(const std::string& name, int moved, int waiting, const std::string& started) const {
        put(kCard + name + "/sub0/hw_params",
            "access: RW_INTERLEAVED\nformat: S16_LE\nsubformat: STD\nchannels: 1\n"
            "rate: 48000 (48000/1)\nperiod_size: 240\nbuffer_size: 2400\n");
        put(kCard + name + "/sub0/status",
            "state: RUNNING\nowner_pid   : 4711\ntrigger_time: " + started +
                "\ntstamp      : 0.000000000\ndelay       : " + std::to_string(waiting) +
                "\navail       : 62\navail_max   : 240\n-----\nhw_ptr      : " +
                std::to_string(moved) + "\nappl_ptr    : 0\n");
    }
    void setPcmState(const std::string& name, const std::string& state) const {
        put(kCard + name + "/sub0/status", "state: " + state + "\ntrigger_time: 1.0\n");
    }
    // A process that has used 1.5 s of processor time and 3160 KiB of memory; `letter` is its
    // state.
    void addProcess(int pid, const std::string& name, char letter = 'S') const {
        const std::string process = "/proc/" + std::to_string(pid);
        put(process + "/comm", name + "\n");
        put(process + "/stat", std::to_string(pid) + " (" + name + ") " + letter +
                                   " 1 4711 4711 0 -1 4194560 1 0 0 0 120 30 0 0 20 0 6 0 5000 "
                                   "12345678 790 18446744073709551615 1\n");
        std::filesystem::create_directories(path() + process + "/fd");
    }
    // Its descriptor, which is open for what `flags` says, in octal as in fdinfo.
    void openFile(int pid, int fd, const std::string& file, const std::string& flags) const {
        const std::string process = "/proc/" + std::to_string(pid);
        const std::string name = "/" + std::to_string(fd);
        std::filesystem::create_symlink(file, path() + process + "/fd" + name);
        put(process + "/fdinfo" + name, "pos:\t0\nflags:\t" + flags + "\nmnt_id:\t15\n");
    }
    // systemd, which says this of the daemon's service: put `programs()` first in PATH.
    void addService(const std::string& answer) const {
        std::filesystem::create_directories(path() + "/run/systemd/system");
        put("/bin/systemctl",
            "#!/bin/sh\necho \"$0 $*\" >>" + path() + "/asked\nprintf '" + answer + "'\n");
        std::filesystem::permissions(programs() + "/systemctl", std::filesystem::perms::owner_all);
    }
    std::string programs() const { return path() + "/bin"; }

  private:
    static constexpr char kCard[] = "/proc/asound/card1/";

    // In one step, so that a reader never finds a part of it.
    void put(const std::string& name, const std::string& text) const {
        const std::string file = path() + name;
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::ofstream(file + ".new", std::ios::binary) << text;
        std::filesystem::rename(file + ".new", file);
    }

    TempDir folder;
};

}  // namespace uafd
