// SPDX-License-Identifier: Apache-2.0
// The cable monitor: follows the board's USB gadget through kernel uevents and tells the app when
// the host has configured it and when the link is gone. On the board with the controller
// "ff300000.usb" it also restarts the controller when the cable is plugged but the gadget does not
// notice. main owns the one instance and calls start() once; the rest is the monitor thread's own.
// Logs under the tag "UAFCBM".
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <pthread.h>

class NetlinkEvent;

namespace uafd {

constexpr char kCableUsbStatePath[] = "/sys/devices/virtual/android_usb/android0/state";
constexpr char kCablePlugStatePath[] =
    "/sys/devices/platform/ff2c0000.syscon/ff2c0000.syscon:usb2-phy@100/extcon/extcon0/cable.0/"
    "state";
constexpr char kCableControllerProperty[] = "sys.usb.controller";
constexpr char kCableConfigProperty[] = "sys.usb.config";
constexpr char kCableRkController[] = "ff300000.usb";

constexpr int kCableCheckPeriodS = 1;        // without a uevent, until the next check
constexpr int32_t kCableNoAckChecks = 3;     // that find the fault in a row: restart the controller
constexpr uint32_t kCableUeventGroups = 15;  // netlink groups 1 to 4, a bit each
constexpr size_t kCableUeventBytes = 2304;   // a longer uevent is dropped

class CableMon {
  public:
    CableMon();
    // Stops nothing: the monitor lasts as long as the process.
    virtual ~CableMon();

    // Opens the uevent socket and starts the thread. False, with the failed step logged, when that
    // fails; the daemon then runs without the monitor.
    bool start();

  protected:
    // Called by the monitor thread with stateCbCtx and whether the gadget is configured, after
    // every uevent that carries the gadget's state. A subclass sets it before start(); its result
    // is ignored.
    int (*stateCb)(void* context, bool configured) = nullptr;
    void* stateCbCtx = nullptr;

  private:
    static void* CableThread(void* instance);

    bool openSocket();
    bool createThread();
    void closeSocket();

    void loop();
    // Receives, checks and handles one message.
    void receiveEvent();
    void handleReceiveError(int result, int savedErrno);
    void handleEvent(NetlinkEvent& event);
    void handleUsbState(const char* state);
    // Called after each failed receive: counts the checks that find the fault, and restarts the
    // controller.
    void validateConnectionState();
    void classify(const char* usbLine, const char* plugLine);

    pthread_t thread{};
    // Relaxed: it is set before the thread exists and publishes nothing else.
    std::atomic<int32_t> running;
    int nlSock;  // -1: none
    bool isRkSoc = false;

    // Used by the monitor thread only.
    bool usbConfigured = false;  // what the app was told last
    int32_t plugNoAckCnt = 0;    // checks in a row: plugged, but the gadget is "DISCONNECTED"
};

}  // namespace uafd
