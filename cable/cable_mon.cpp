// SPDX-License-Identifier: Apache-2.0
#include "cable/cable_mon.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <unistd.h>

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/system_properties.h>
#include <sys/time.h>
#include <sysutils/NetlinkEvent.h>

#include "cable/log_tag.h"
#include "cable/usb_state.h"
#include "ipc/uaf_ipc.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr uint32_t kKernelPid = 0;
constexpr uint32_t kKernelGroup = 1;
constexpr int kPlainTextFormat = 0;  // a plain number: its name has moved between classes
constexpr int kActionChange = 3;

constexpr char kSubsystem[] = "android_usb";
constexpr char kStateParam[] = "USB_STATE";

void closeStateFile(FILE* file) {
    const int rc = fclose(file);
    const int savedErrno = errno;
    if (rc != 0) {
        LOGE("closing %s failed: <%d:%d:%s>\n", kCableUsbStatePath, rc, savedErrno,
             strerror(savedErrno));
    }
}

bool readInitialState(FILE* file) {
    char line[kStateLineBytes] = {};
    if (fgets(line, sizeof line, file) == nullptr) {
        LOGE("reading %s failed: feof=%d, ferror=%d\n", kCableUsbStatePath, feof(file),
             ferror(file));
        return false;
    }
    LOGD("Initial USB state is %s\n", line);
    return beginsWith(line, kUsbStateConfigured);
}

// Only a configured gadget is reported: the app assumes "disconnected" until told otherwise.
bool reportInitialState() {
    FILE* const file = fopen(kCableUsbStatePath, "r");
    if (file == nullptr) {
        const int savedErrno = errno;
        LOGE("opening %s failed: <%d:%s>\n", kCableUsbStatePath, savedErrno, strerror(savedErrno));
        return false;
    }
    const bool configured = readInitialState(file);
    if (configured) {
        UafIpc::queueMsg(UafIpc::UafIpcConnectedMsg);
    }
    closeStateFile(file);
    return configured;
}

}  // namespace

CableMon::CableMon() : running(0), nlSock(-1) {}

CableMon::~CableMon() = default;

bool CableMon::start() {
    char controller[PROP_VALUE_MAX] = {};
    __system_property_get(kCableControllerProperty, controller);
    isRkSoc = beginsWith(controller, kCableRkController);
    if (openSocket() && createThread()) {
        return true;
    }
    running.store(0, std::memory_order_relaxed);
    closeSocket();
    return false;
}

bool CableMon::openSocket() {
    nlSock = socket(AF_NETLINK, SOCK_DGRAM, NETLINK_KOBJECT_UEVENT);
    if (nlSock < 0) {
        const int savedErrno = errno;
        LOGE("opening netlink socket failed: <%d:%s>\n", savedErrno, strerror(savedErrno));
        return false;
    }
    if (isRkSoc) {
        // If this fails there are only fewer checks.
        const timeval timeout = {kCableCheckPeriodS, 0};
        setsockopt(nlSock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<uint32_t>(getpid());
    address.nl_groups = kCableUeventGroups;
    if (bind(nlSock, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int savedErrno = errno;
        LOGE("bind failed: <%d:%s>\n", savedErrno, strerror(savedErrno));
        return false;
    }
    return true;
}

bool CableMon::createThread() {
    running.store(1, std::memory_order_relaxed);
    const int rc = pthread_create(&thread, nullptr, CableThread, this);
    const int savedErrno = errno;
    if (rc != 0) {
        LOGE("pthread_create: <%d:%s>\n", savedErrno, strerror(savedErrno));
    }
    return rc == 0;
}

void CableMon::closeSocket() {
    if (nlSock < 0) {
        return;
    }
    const int rc = close(nlSock);
    const int savedErrno = errno;
    if (rc != 0) {
        LOGE("closing netlink socket failed: <%d:%d:%s>\n", rc, savedErrno, strerror(savedErrno));
    }
    nlSock = -1;
}

void* CableMon::CableThread(void* instance) {
    static_cast<CableMon*>(instance)->loop();
    return nullptr;
}

void CableMon::loop() {
    plugNoAckCnt = 0;
    usbConfigured = reportInitialState();
    LOGD("enter loop\n");
    while (running.load(std::memory_order_relaxed) != 0) {
        receiveEvent();
    }
}

void CableMon::receiveEvent() {
    char buffer[kCableUeventBytes];
    iovec part = {buffer, sizeof buffer};
    sockaddr_nl sender = {};
    msghdr header = {};
    header.msg_name = &sender;
    header.msg_namelen = sizeof sender;
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    const int result = static_cast<int>(recvmsg(nlSock, &header, 0));
    const int savedErrno = errno;

    if (result < 0) {
        handleReceiveError(result, savedErrno);
    } else if ((header.msg_flags & MSG_TRUNC) != 0) {
        LOGE("recvmsg truncate: <%d:%d:%s>, buf size is %d\n", result, savedErrno,
             strerror(savedErrno), static_cast<int>(sizeof buffer));
    } else if (sender.nl_pid != kKernelPid || sender.nl_groups != kKernelGroup) {
        LOGE("ignoring non-kernel netlink multicast message\n");
    } else if (result == 0) {
        LOGD("recvmsg returned zero\n");
    } else {
        const std::unique_ptr<NetlinkEvent> event(new (std::nothrow) NetlinkEvent);
        if (event != nullptr && event->decode(buffer, result, kPlainTextFormat)) {
            handleEvent(*event);
        } else {
            LOGE("decoding netlinmk msg failed\n");
        }
    }
}

// When a timeout is set, every error leads to one check.
void CableMon::handleReceiveError(int result, int savedErrno) {
    if (isRkSoc) {
        LOGD("recvmsg error: <%d:%d:%s> - likely a timeout for RK-based SoC\n", result, savedErrno,
             strerror(savedErrno));
        validateConnectionState();
    } else {
        LOGE("recvmsg error: <%d:%d:%s>\n", result, savedErrno, strerror(savedErrno));
    }
}

void CableMon::handleEvent(NetlinkEvent& event) {
    const char* const subsystem = event.getSubsystem();
    if (subsystem == nullptr || strcmp(subsystem, kSubsystem) != 0) {
        return;
    }
    // An int on older platforms, a scoped enumeration on newer ones.
    const int action = static_cast<int>(event.getAction());
    if (action != kActionChange) {
        LOGD("subsystem: %s, action: %d\n", subsystem, action);
        return;
    }
    const char* const state = event.findParam(kStateParam);
    if (state == nullptr) {
        LOGE("usb state is NULL\n");
        return;
    }
    LOGD("subsystem: %s, action: %d, usbstate=%s\n", subsystem, action, state);
    handleUsbState(state);
}

// The app is told only of changes between the two; other states ("CONNECTED") are intermediate.
void CableMon::handleUsbState(const char* state) {
    if (strcmp(state, kUsbStateDisconnected) == 0) {
        if (usbConfigured) {
            UafIpc::queueMsg(UafIpc::UafIpcDisconnectedMsg);
        }
        usbConfigured = false;
    } else if (strcmp(state, kUsbStateConfigured) == 0 && !usbConfigured) {
        UafIpc::queueMsg(UafIpc::UafIpcConnectedMsg);
        usbConfigured = true;
    }
    if (stateCb != nullptr) {
        stateCb(stateCbCtx, usbConfigured);
    }
}

}  // namespace uafd
