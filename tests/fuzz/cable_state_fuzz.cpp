// SPDX-License-Identifier: Apache-2.0
// What the two state files of the cable monitor may contain or refuse, at its start and at each
// tick of its check. Log, messages to the app and restarts must follow from the beginnings of the
// texts.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/fuzz/cable_run.h"

namespace uafd {

const int fuzz::kMaxInputBytes = 32;

namespace {

using fake_log::kCableLog;
using fuzz::beginsWith;
using fuzz::require;

constexpr size_t kLineCharacters = 31;  // the most that is read of a state file

const std::string kWords[] = {"CONFIGURED\n",
                              "DISCONNECTED\n",
                              "CONNECTED\n",
                              "CONFIGURED",
                              "DISCONNECTED",
                              "1\n",
                              "0\n",
                              "1",
                              std::string(40, 'x'),
                              std::string(1, '\0'),
                              "\n",
                              "CONF",
                              "DISC"};

// The part of a file that counts: its first line, as far as it is read, up to a zero byte.
std::string lineOf(const std::string& text) {
    const std::string line = text.substr(0, std::min(text.find('\n') + 1, text.size()));
    return std::string((line.empty() ? text : line).substr(0, kLineCharacters).c_str());
}

class StateRun {
  public:
    explicit StateRun(fuzz::Input& input) : input(input) {
        cable.properties["/run/properties/sys.usb.controller"] = "ff300000.usb\n";
        cable.properties["/run/properties/sys.usb.config"] = "uac2,adb\n";
    }

    void run() {
        const File usb = put(fuzz::kCableUsbFile);
        expectStart(usb);
        expected.push_back(kCableLog.debug("enter loop\n"));
        cable.run([this](msghdr&) { return tick(); });
        fuzz::requireLog(expected);
        require(cable.files.openNow == 0, "every file is closed");
        require(cable.commands ==
                    std::vector<std::string>(restarts, "setprop sys.usb.config uac2,adb\n"),
                "the controller is restarted as often as it should");
        const std::vector<IpcService::Message> configured = {{0, 1}};
        require(cable.takeMessages() == (told ? configured : std::vector<IpcService::Message>{}),
                "the app hears only of a configured gadget");
    }

  private:
    struct File {
        std::string text;
        int openError = 0;
        int readError = 0;
        bool hasLine() const { return openError == 0 && !text.empty(); }
    };

    File put(const char* path) {
        const uint8_t how = input.byte();
        File file;
        for (int i = how & 7; i > 0; i--) {
            file.text += fuzz::expand(std::string(1, static_cast<char>(input.byte())), kWords);
        }
        if (how >= 232) {
            file.openError = fuzz::errorOf(how);
            cable.files.refuse(path, file.openError);
        } else if (how >= 208) {
            file.readError = fuzz::errorOf(how);
            cable.files.breakOff(path, file.text, file.readError);
        } else {
            cable.files.put(path, file.text);
        }
        return file;
    }

    void expectStart(const File& usb) {
        const std::string path = fuzz::kCableUsbFile;
        if (usb.openError != 0) {
            expected.push_back(kCableLog.error("opening " + path + " failed: <" +
                                               std::to_string(usb.openError) + ":" +
                                               strerror(usb.openError) + ">\n"));
        } else if (!usb.hasLine() || (usb.readError != 0 && !isWhole(usb.text))) {
            const bool broken = usb.readError != 0;
            expected.push_back(kCableLog.error("reading " + path +
                                               " failed: feof=" + (broken ? "0" : "1") +
                                               ", ferror=" + (broken ? "1" : "0") + "\n"));
        } else {
            expected.push_back(kCableLog.debug("Initial USB state is " + lineOf(usb.text) + "\n"));
            told = beginsWith(lineOf(usb.text), "CONFIGURED");
        }
    }

    // Whether a line is complete before a later read can fail: it ends by then or fills the buffer.
    static bool isWhole(const std::string& text) {
        return text.find('\n') < kLineCharacters || text.size() >= kLineCharacters;
    }

    ssize_t tick() {
        if (input.empty()) {
            cable.end();
        }
        const File usb = put(fuzz::kCableUsbFile);
        const File plug = put(fuzz::kCablePlugFile);
        expected.push_back(fuzz::cableReceiveError(true, EAGAIN));
        if (isRead(usb) && isRead(plug)) {
            classify(lineOf(usb.text), lineOf(plug.text));
        }
        return cable.fail(EAGAIN);
    }

    static bool isRead(const File& file) {
        return file.hasLine() && (file.readError == 0 || isWhole(file.text));
    }

    void classify(const std::string& usb, const std::string& plug) {
        const bool stuck = beginsWith(usb, "DISCONNECTED") && beginsWith(plug, "1");
        if (beginsWith(usb, "CONFIGURED") || beginsWith(usb, "DISCONNECTED")) {
            seenStuck = stuck ? seenStuck + 1 : 0;
        }
        if (seenStuck == 3) {
            seenStuck = 0;
            restarts++;
            expected.push_back(kCableLog.debug(
                "Cable plugged without android_usb subsystem acknowledging the plug. "
                "Restart UDC with property: uac2,adb"));
            expected.push_back(kCableLog.debug("Issue: setprop sys.usb.config uac2,adb\n\n"));
        }
    }

    fuzz::Input& input;
    fuzz::CableRun cable;
    fuzz::Lines expected;
    bool told = false;
    int seenStuck = 0;
    size_t restarts = 0;
};

}  // namespace

void fuzz::execute(Input& input) {
    StateRun(input).run();
}

}  // namespace uafd
