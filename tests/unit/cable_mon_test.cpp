// SPDX-License-Identifier: Apache-2.0
// The cable monitor's start, and what it makes of the state file and of uevents.
#include "cable/cable_mon.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <pthread.h>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "tests/unit/cable_fixture.h"

namespace uafd {
namespace {

using fake_log::kCableLog;
using namespace cable;

using CableMonTest = cable::Fixture;

TEST_F(CableMonTest, StartOpensTheUeventSocket) {
    run({});
    EXPECT_EQ((Strings{"socket", "bind"}), calls);
}

TEST_F(CableMonTest, OnlyTheCheckedControllerGetsATimeoutAndItsFailureIsIgnored) {
    const std::map<std::string, bool> table = {{"ff300000.usb\n", true},
                                               {"ff300000.usb2\n", true},
                                               {"ff300000.us\n", false},
                                               {"fe800000.usb\n", false},
                                               {"\n", false}};
    for (const auto& [controller, checked] : table) {
        calls.clear();
        folder.write("sys.usb.controller", controller);
        run({});
        EXPECT_EQ(checked ? (Strings{"socket", "timeout", "bind"}) : (Strings{"socket", "bind"}),
                  calls)
            << controller;
    }
}

TEST_F(CableMonTest, SocketFails) {
    fake_sys::hooks().socket = fake_sys::failing(EMFILE);
    EXPECT_FALSE(monitor.start());
    EXPECT_EQ((Lines{kCableLog.error("opening netlink socket failed: <24:Too many open files>\n")}),
              fake_log::lines());
    EXPECT_EQ(Strings{}, calls);
}

TEST_F(CableMonTest, BindFailsAndTheSocketIsClosedOnce) {
    fake_sys::hooks().bind = fake_sys::failing(EADDRINUSE);
    EXPECT_FALSE(monitor.start());
    EXPECT_EQ((Lines{kCableLog.error("bind failed: <98:Address already in use>\n")}),
              fake_log::lines());
    EXPECT_EQ((Strings{"socket", "close"}), calls);
    fake_sys::hooks().socket = [](int, int, int) { return -1; };
    EXPECT_FALSE(monitor.start());
    EXPECT_EQ((Strings{"socket", "close"}), calls);
}

TEST_F(CableMonTest, DestructorClosesNothing) {
    {
        CableMon doomed;
        run(doomed, {});
    }
    EXPECT_EQ((Strings{"socket", "bind"}), calls);
}

TEST_F(CableMonTest, FailedCloseIsLogged) {
    fake_sys::hooks().bind = fake_sys::failing(EACCES);
    fake_sys::hooks().close = fake_sys::failing(EIO);
    EXPECT_FALSE(monitor.start());
    EXPECT_EQ(
        (Lines{kCableLog.error("bind failed: <13:Permission denied>\n"),
               kCableLog.error("closing netlink socket failed: <-1:5:Input/output error>\n")}),
        fake_log::lines());
}

// If the thread exists in spite of the error, it finds the monitor stopped.
TEST_F(CableMonTest, ThreadFailsWithErrnoInItsLineAndTheMonitorStopped) {
    void* (*entry)(void*) = nullptr;
    fake_sys::hooks().pthread_create = [&](pthread_t*, const pthread_attr_t*,
                                           void* (*threadEntry)(void*), void*) {
        entry = threadEntry;
        errno = ENOMEM;
        return EAGAIN;
    };
    fake_sys::hooks().recvmsg = [](int, msghdr*, int) -> ssize_t {
        ADD_FAILURE() << "received while stopped";
        pthread_exit(nullptr);
    };
    EXPECT_FALSE(monitor.start());
    EXPECT_EQ((Lines{kCableLog.error("pthread_create: <12:Cannot allocate memory>\n")}),
              fake_log::lines());
    EXPECT_EQ((Strings{"socket", "bind", "close"}), calls);
    entry(&monitor);
    EXPECT_EQ(Lines{}, linesInLoop());
}

TEST_F(CableMonTest, InitialConfiguredIsReportedToTheApp) {
    setUsb("CONFIGURED\n");
    run({});
    EXPECT_EQ((Lines{kCableLog.debug("Initial USB state is CONFIGURED\n\n"),
                     kCableLog.debug("enter loop\n")}),
              fake_log::lines());
    EXPECT_EQ((Messages{{0, 1}}), service.take());
}

TEST_F(CableMonTest, InitialOtherStateIsNotReported) {
    for (const std::string state : {"DISCONNECTED\n", "CONNECTED\n", "CONFIGURE\n", "\n"}) {
        fake_log::clear();
        setUsb(state);
        run({usbState("DISCONNECTED")});
        EXPECT_EQ((Lines{kCableLog.debug("Initial USB state is " + state + "\n"),
                         kCableLog.debug("enter loop\n"), usbStateLine("DISCONNECTED")}),
                  fake_log::lines());
        EXPECT_EQ(Messages{}, service.take());
    }
}

TEST_F(CableMonTest, InitialLineIsReadUpToItsThirtyFirstCharacter) {
    setUsb("CONFIGURED" + std::string(40, 'x') + "\n");
    run({});
    EXPECT_EQ(1, fake_log::count(kCableLog.debug("Initial USB state is CONFIGURED" +
                                                 std::string(21, 'x') + "\n")));
    EXPECT_EQ((Messages{{0, 1}}), service.take());
}

TEST_F(CableMonTest, InitialStateThatCannotBeOpened) {
    std::filesystem::remove(folder.path() + "/usb");
    run({usbState("CONFIGURED")});
    EXPECT_EQ((Lines{kCableLog.error("opening " + kUsbStatePath +
                                     " failed: <2:No such file or directory>\n"),
                     kCableLog.debug("enter loop\n"), usbStateLine("CONFIGURED")}),
              fake_log::lines());
    EXPECT_EQ((Messages{{0, 1}}), service.take());
}

TEST_F(CableMonTest, InitialStateThatIsEmpty) {
    setUsb("");
    run({});
    EXPECT_EQ((Lines{kCableLog.error("reading " + kUsbStatePath + " failed: feof=1, ferror=0\n"),
                     kCableLog.debug("enter loop\n")}),
              fake_log::lines());
}

TEST_F(CableMonTest, InitialStateThatFailsToReadAndToClose) {
    fake_sys::hooks().fopen = [](const char*, const char* mode) {
        cookie_io_functions_t failing = {};
        failing.read = [](void*, char*, size_t) -> ssize_t { return -1; };
        failing.close = [](void*) {
            errno = EIO;
            return -1;
        };
        return fopencookie(nullptr, mode, failing);
    };
    run({});
    EXPECT_EQ(
        (Lines{kCableLog.error("reading " + kUsbStatePath + " failed: feof=0, ferror=1\n"),
               kCableLog.error("closing " + kUsbStatePath + " failed: <-1:5:Input/output error>\n"),
               kCableLog.debug("enter loop\n")}),
        fake_log::lines());
}

TEST_F(CableMonTest, AppHearsOfEdgesOnly) {
    run({usbState("DISCONNECTED"), usbState("CONNECTED"), usbState("CONFIGURED"),
         usbState("CONFIGURED"), usbState("CONNECTED"), usbState("CONFIGURED"),
         usbState("DISCONNECTED"), usbState("DISCONNECTED"), usbState("CONFIGURED")});
    EXPECT_EQ((Messages{{0, 1}, {0, 0}, {0, 1}}), service.take());
}

TEST_F(CableMonTest, UeventStatesAreComparedWhole) {
    setUsb("CONFIGURED\n");
    run({usbState("DISCONNECTED2"), usbState("DISCONNECTE"), usbState(""), usbState("configured"),
         usbState("DISCONNECTED"), usbState("CONFIGURED\n"), usbState("CONFIGURED ")});
    EXPECT_EQ((Messages{{0, 1}, {0, 0}}), service.take());
}

TEST_F(CableMonTest, EveryStateEventIsLogged) {
    run({usbState("CONNECTED"), usbState("CONFIGURED"), usbState("CONFIGURED")});
    EXPECT_EQ(
        (Lines{usbStateLine("CONNECTED"), usbStateLine("CONFIGURED"), usbStateLine("CONFIGURED")}),
        linesInLoop());
}

struct ListenedMon : CableMon {
    ListenedMon() {
        stateCb = [](void* context, bool configured) {
            static_cast<ListenedMon*>(context)->heard += configured ? '1' : '0';
            return -1;
        };
        stateCbCtx = this;
    }
    std::string heard;
};

TEST_F(CableMonTest, ListenerHearsOfEveryStateEvent) {
    ListenedMon listened;
    run(listened, {usbState("CONNECTED"), usbState("CONFIGURED"), usbState("CONFIGURED"),
                   usbState("CONNECTED"), usbState("DISCONNECTED"), usbState("DISCONNECTED"),
                   uevent({"add@/x", "ACTION=add", "SUBSYSTEM=android_usb"}),
                   uevent({"change@/x", "ACTION=change", "SUBSYSTEM=android_usb"})});
    EXPECT_EQ("011100", listened.heard);
}

TEST_F(CableMonTest, OtherActionsAreLoggedWithTheirNumber) {
    run({uevent({"add@/x", "ACTION=add", "SUBSYSTEM=android_usb", "USB_STATE=CONFIGURED"}),
         uevent({"remove@/x", "ACTION=remove", "SUBSYSTEM=android_usb"}),
         uevent({"bind@/x", "ACTION=bind", "SUBSYSTEM=android_usb"})});
    EXPECT_EQ((Lines{kCableLog.debug("subsystem: android_usb, action: 1\n"),
                     kCableLog.debug("subsystem: android_usb, action: 2\n"),
                     kCableLog.debug("subsystem: android_usb, action: 0\n")}),
              linesInLoop());
    EXPECT_EQ(Messages{}, service.take());
}

TEST_F(CableMonTest, ChangeWithoutAStateIsAnError) {
    run({uevent({"change@/x", "ACTION=change", "SUBSYSTEM=android_usb"})});
    EXPECT_EQ((Lines{kCableLog.error("usb state is NULL\n")}), linesInLoop());
}

TEST_F(CableMonTest, OtherSubsystemsAndNoneAreIgnoredSilently) {
    run({uevent({"change@/x", "ACTION=change", "SUBSYSTEM=usb", "USB_STATE=CONFIGURED"}),
         uevent({"change@/x", "ACTION=change", "SUBSYSTEM=android_usb2", "USB_STATE=CONFIGURED"}),
         uevent({"change@/x", "ACTION=change", "USB_STATE=CONFIGURED"})});
    EXPECT_EQ(Lines{}, linesInLoop());
    EXPECT_EQ(Messages{}, service.take());
}

TEST_F(CableMonTest, UndecodableEventIsAnError) {
    run({uevent({"no devpath", "SUBSYSTEM=android_usb"})});
    EXPECT_EQ((Lines{kCableLog.error("decoding netlinmk msg failed\n")}), linesInLoop());
}

// Other processes can send to such a socket, too.
TEST_F(CableMonTest, OnlyTheKernelsFirstGroupIsHeardAndNothingElseDecoded) {
    const std::pair<uint32_t, uint32_t> senders[] = {{1234, 1}, {0, 2}, {0, 0}, {0, 3}, {1234, 2}};
    for (const auto& [pid, groups] : senders) {
        fake_log::clear();
        Receive foreign = usbState("CONFIGURED");
        foreign.senderPid = pid;
        foreign.senderGroups = groups;
        Receive undecodable = uevent({"no devpath"});
        undecodable.senderPid = pid;
        undecodable.senderGroups = groups;
        Receive empty = {"", 0, 0, pid, groups};
        run({foreign, undecodable, empty});
        EXPECT_EQ(Lines(3, kCableLog.error("ignoring non-kernel netlink multicast message\n")),
                  linesInLoop());
    }
    EXPECT_EQ(Messages{}, service.take());
}

TEST_F(CableMonTest, EmptyMessageIsLogged) {
    run({{"", 0, 0}});
    EXPECT_EQ((Lines{kCableLog.debug("recvmsg returned zero\n")}), linesInLoop());
}

TEST_F(CableMonTest, TruncatedMessageIsDroppedWhoeverSentIt) {
    Receive cut = usbState("CONFIGURED");
    cut.bytes.resize(2304, 'x');
    cut.result = 2304;
    cut.flags = MSG_TRUNC;
    cut.error = EINTR;
    Receive foreign = cut;
    foreign.senderPid = 1;
    run({cut, foreign});
    EXPECT_EQ(
        Lines(2, kCableLog.error("recvmsg truncate: <2304:4:Interrupted system call>, buf size is "
                                 "2304\n")),
        linesInLoop());
    EXPECT_EQ(Messages{}, service.take());
}

TEST_F(CableMonTest, WholeBufferIsDecoded) {
    Receive full = uevent({"change@/x", "ACTION=change", "SUBSYSTEM=android_usb"});
    full.bytes += "USB_STATE=CONFIGURED";
    full.bytes += '\0';
    full.bytes.resize(2304, 'x');
    full.result = 2304;
    run({full});
    EXPECT_EQ((Messages{{0, 1}}), service.take());
}

TEST_F(CableMonTest, OtherBoardsLogReceiveErrorsAndNeverCheck) {
    folder.write("sys.usb.controller", "fe800000.usb\n");
    const Receive faulty = check("DISCONNECTED", "1");
    run({faulty, faulty, faulty, faulty, usbState("CONFIGURED")});
    EXPECT_EQ((Lines{kCableLog.error("recvmsg error: <-1:11:Resource temporarily unavailable>\n"),
                     kCableLog.error("recvmsg error: <-1:11:Resource temporarily unavailable>\n"),
                     kCableLog.error("recvmsg error: <-1:11:Resource temporarily unavailable>\n"),
                     kCableLog.error("recvmsg error: <-1:11:Resource temporarily unavailable>\n"),
                     usbStateLine("CONFIGURED")}),
              linesInLoop());
    EXPECT_EQ(Strings{}, commands);
}

}  // namespace
}  // namespace uafd
