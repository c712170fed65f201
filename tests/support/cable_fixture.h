// SPDX-License-Identifier: Apache-2.0
// The cable monitor with its real thread on scripted uevents, with state files and properties in
// the test's own folder, and with the real message queue. Read the thread's results only when it
// has ended.
#pragma once

#include <functional>
#include <initializer_list>
#include <pthread.h>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>

#include "cable/cable_mon.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"
#include "tests/support/ipc_service.h"
#include "tests/support/temp_dir.h"

namespace uafd::cable {

using fake_log::kCableLog;
using Lines = std::vector<fake_log::Line>;
using Messages = std::vector<IpcService::Message>;
using Strings = std::vector<std::string>;

constexpr int kNetlinkSocket = 903;
inline const std::string kUsbStatePath = "/sys/devices/virtual/android_usb/android0/state";
inline const std::string kPlugStatePath =
    "/sys/devices/platform/ff2c0000.syscon/ff2c0000.syscon:usb2-phy@100/extcon/extcon0/cable.0/"
    "state";

inline const fake_log::Line kTickLine = kCableLog.debug(
    "recvmsg error: <-1:11:Resource temporarily unavailable> - likely a timeout for RK-based "
    "SoC\n");

// One answer from the uevent socket.
struct Receive {
    std::string bytes;
    ssize_t result = 0;
    int error = 0;
    uint32_t senderPid = 0;
    uint32_t senderGroups = 1;
    int flags = 0;
    std::function<void()> before = {};
};

inline const Receive kTick = {"", -1, EAGAIN};

// A message of these strings, each with a zero byte after it.
Receive uevent(std::initializer_list<std::string> strings);
Receive usbState(const std::string& state);
fake_log::Line usbStateLine(const std::string& state);

class Fixture : public fake_sys::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    void fakeFiles();
    void fakeSocket();

    // Starts the monitor on these answers; its thread ends when they are used up.
    void run(CableMon& monitor, std::vector<Receive> answers);
    void run(std::vector<Receive> answers) { run(monitor, std::move(answers)); }

    void setUsb(const std::string& line) { folder.write("usb", line); }
    void setPlug(const std::string& line) { folder.write("plug", line); }

    // A tick of the check that finds these lines in the state files.
    Receive check(const std::string& usb, const std::string& plug);

    // The log's lines after the loop's first one.
    static Lines linesInLoop();

    TempDir folder;
    IpcService service;
    CableMon monitor;
    pthread_t thread{};
    Strings calls;
    Strings commands;

  private:
    static ssize_t answer(const Receive& receive, int fd, msghdr& header, int flags);
};

}  // namespace uafd::cable
