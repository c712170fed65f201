// SPDX-License-Identifier: Apache-2.0
// What names and values a property may have, however its file is read: in pieces, with
// interruptions, up to an error. Then the cable monitor with two such values: that of the
// controller decides whether it checks the cable, and the configuration goes into a shell's command
// line only when it is harmless there.
#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include <sys/system_properties.h>

#include "tests/fuzz/cable_run.h"

namespace uafd {

const int fuzz::kMaxInputBytes = 40;

namespace {

using fake_log::kCableLog;
using fuzz::require;
using fuzz::requireSame;

constexpr size_t kValueMax = 91;
constexpr size_t kNameLengthMax = 255;
const std::string kFolder = "/run/properties/";
const std::string kHarmless =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_,.:+-";

const std::string kWords[] = {std::string(1, '\0'),
                              "ff300000.usb",
                              "uac2,adb",
                              std::string(40, 'v'),
                              "mtp",
                              ";",
                              "$(",
                              " ",
                              "",
                              "\t",
                              "\n",
                              "\x0b",
                              "\x0c",
                              "\r",
                              "/",
                              "."};

class PropertyRun {
  public:
    explicit PropertyRun(fuzz::Input& input) : input(input) {
        cable.files.put(fuzz::kCableUsbFile, "DISCONNECTED\n");
        cable.files.put(fuzz::kCablePlugFile, "1\n");
        fake_sys::hooks().read = [this](int fd, void* data, size_t room) {
            return read(fd, data, room);
        };
        fake_sys::hooks().close = [this](int) { return finish(); };
    }

    void run() {
        const std::string name = nameOf(word(8));
        const std::string controller = word(8);
        const std::string config = word(16);
        cable.properties[kFolder + name] = config;
        get(name);
        cable.properties[kFolder + "sys.usb.controller"] = controller;
        cable.properties[kFolder + "sys.usb.config"] = config;
        monitor();
    }

  private:
    std::string word(int lengthLimit) {
        return fuzz::expand(input.text(static_cast<size_t>(input.byte() % lengthLimit)), kWords);
    }

    // The name as the call gets it: up to a zero byte, and sometimes long.
    static std::string nameOf(const std::string& text) {
        std::string name = text.substr(0, text.find('\0'));
        while (name.size() > kValueMax && name.size() < kNameLengthMax) {
            name += name.back();
        }
        return name;
    }

    void get(const std::string& name) {
        std::vector<char> value(PROP_VALUE_MAX, '#');
        const int length = __system_property_get(name.c_str(), value.data());
        const bool allowed = !name.empty() && name[0] != '.' &&
                             name.find('/') == std::string::npos && name.size() <= kNameLengthMax;
        require(finished == (allowed ? 1 : 0), "a name within the folder is read, no other");
        requireSame(lastValue, value.data(), "the value is the file's line");
        require(static_cast<size_t>(length) == lastValue.size(), "its length is returned");
    }

    // Returns a piece of the file, an interruption, or the error that ends the value.
    ssize_t read(int fd, void* data, size_t room) {
        require(!ended && room == kValueMax - delivered.size(), "a value is read until it ends");
        const uint8_t how = input.byte();
        if (how % 4 == 2) {
            return cable.fail(EINTR);
        }
        if (how % 4 == 3) {
            ended = true;
            return cable.fail(how < 128 ? EIO : EAGAIN);
        }
        const size_t piece = how % 4 == 1 ? std::min<size_t>(room, 1 + how / 4) : room;
        const ssize_t n = cable.readProperty(fd, data, piece);
        delivered.append(static_cast<const char*>(data), static_cast<size_t>(n));
        ended = n == 0;
        return n;
    }

    int finish() {
        require(ended || delivered.size() == kValueMax, "a value is read whole");
        lastValue = delivered.substr(0, delivered.find_first_of("\r\n")).c_str();
        delivered.clear();
        ended = false;
        finished++;
        return 0;
    }

    // Three ticks that find the cable plugged and the gadget unaware of it.
    void monitor() {
        fuzz::Lines expected = {kCableLog.debug("Initial USB state is DISCONNECTED\n\n"),
                                kCableLog.debug("enter loop\n")};
        int ticks = 0;
        bool watched = false;
        cable.run([&](msghdr&) {
            watched = ticks > 0 ? watched : lastValue.compare(0, 12, "ff300000.usb") == 0;
            if (ticks++ == 3) {
                cable.end();
            }
            expected.push_back(fuzz::cableReceiveError(watched, EAGAIN));
            return cable.fail(EAGAIN);
        });
        require(cable.watched == watched, "the controller's name decides on the check");
        std::vector<std::string> commands;
        if (watched) {
            commands = restart(lastValue, expected);
        }
        fuzz::requireLog(expected);
        require(cable.commands == commands, "only a harmless command is run");
    }

    static std::vector<std::string> restart(const std::string& value, fuzz::Lines& expected) {
        const std::string command = "setprop sys.usb.config " + value + "\n";
        expected.push_back(
            kCableLog.debug("Cable plugged without android_usb subsystem acknowledging the plug. "
                            "Restart UDC with property: " +
                            value));
        expected.push_back(kCableLog.debug("Issue: " + command + "\n"));
        if (value.find_first_not_of(kHarmless) != std::string::npos) {
            expected.push_back(kCableLog.error(
                "not issued: the value holds characters that a shell could act upon\n"));
            return {};
        }
        return {command};
    }

    fuzz::Input& input;
    fuzz::CableRun cable;
    std::string delivered;  // of the open file
    bool ended = false;     // the open file has no more
    int finished = 0;       // how many files were read
    std::string lastValue;  // what they contained
};

}  // namespace

void fuzz::execute(Input& input) {
    PropertyRun(input).run();
}

}  // namespace uafd
