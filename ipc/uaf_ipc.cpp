// SPDX-License-Identifier: Apache-2.0
#include "ipc/uaf_ipc.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <sys/ioctl.h>
#include <sys/socket.h>

#include "daemon/uac_user.h"
#include "ipc/app_paths.h"
#include "ipc/log_tag.h"
#include "platform/log.h"

namespace uafd {

const UsbAudioMsgT UafIpc::UafIpcConnectedMsg = {USB_AUDIO_MSG_USB_STATE, 1};
const UsbAudioMsgT UafIpc::UafIpcDisconnectedMsg = {USB_AUDIO_MSG_USB_STATE, 0};

int UafIpc::txSock = -1;
sockaddr_un UafIpc::txAddr;
UafIpc::Admission UafIpc::admission;

namespace {

void fillAddress(sockaddr_un& address, const char* path) {
    address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
}

// The socket's file outlives the process that bound it.
bool removeStalePath(const char* path) {
    if (unlink(path) == 0) {
        return true;
    }
    const int savedErrno = errno;
    if (savedErrno == ENOENT) {
        // An error line although nothing is wrong: log readers expect it at a first start.
        LOGE("unlink failed err %d, path does not exist ... ignoring", savedErrno);
        return true;
    }
    LOGE("unlink failed, error: %d", savedErrno);
    return false;
}

void request(int gadgetFd, unsigned long code, uint32_t& data) {
    const int rc = ioctl(gadgetFd, code, &data);
    const int savedErrno = errno;
    if (rc != 0) {
        LOGE("rxLoop: ioctl failed: <%d:%d>\n", rc, savedErrno);
    }
}

}  // namespace

UafIpc::UafIpc() : rxSock(-1), running(0) {}

UafIpc::~UafIpc() = default;

bool UafIpc::start() {
    msgQueue.resetList();
    if (openSockets()) {
        running.store(1, std::memory_order_relaxed);
        if (createThreads()) {
            return true;
        }
    }
    running.store(0, std::memory_order_relaxed);
    closeSockets();
    return false;
}

bool UafIpc::openSockets() {
    txSock = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (txSock < 0) {
        const int savedErrno = errno;
        LOGE("socket failed: <%d:%d>\n", txSock, savedErrno);
        return false;
    }
    fillAddress(txAddr, kIpcRxPath);

    rxSock = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (rxSock < 0) {
        const int savedErrno = errno;
        // Without a line end, unlike the sending socket's line: that distinguishes the two.
        LOGE("socket failed: <%d:%d>", rxSock, savedErrno);
        return false;
    }
    fillAddress(rxAddr, kIpcTxPath);

    if (!removeStalePath(kIpcTxPath)) {
        return false;
    }
    if (bind(rxSock, reinterpret_cast<const sockaddr*>(&rxAddr), sizeof rxAddr) != 0) {
        const int savedErrno = errno;
        LOGE("bind failed, error: %d\n", savedErrno);
        return false;
    }
    return true;
}

bool UafIpc::createThreads() {
    pthread_mutex_lock(&admission.startMutex);
    int rc = pthread_create(&rxThread, nullptr, UafIpcRxThread, this);
    int savedErrno = errno;
    if (rc != 0) {
        LOGE("creating IPC RX thread failed: <%d:%d:%s>\n", rc, savedErrno, strerror(savedErrno));
    } else {
        rc = pthread_create(&txThread, nullptr, UafIpcTxThread, this);
        savedErrno = errno;
        if (rc != 0) {
            LOGE("creating IPC TX thread failed: <%d:%d:%s>\n", rc, savedErrno,
                 strerror(savedErrno));
        }
    }
    admission.any = rc == 0;
    admission.thread = rxThread;
    pthread_mutex_unlock(&admission.startMutex);
    return rc == 0;
}

void UafIpc::closeSockets() {
    if (rxSock >= 0) {
        const int rc = close(rxSock);
        const int savedErrno = errno;
        if (rc != 0) {
            LOGE("closing IPC rx socket failed: <%d:%d:%s>\n", rc, savedErrno,
                 strerror(savedErrno));
        }
        rxSock = -1;
    }
    if (txSock >= 0) {
        const int rc = close(txSock);
        const int savedErrno = errno;
        if (rc != 0) {
            LOGE("closing IPC tx socket failed: <%d:%d:%s>\n", rc, savedErrno,
                 strerror(savedErrno));
        }
        txSock = -1;
    }
}

// Waits until the start that creates this thread has finished.
bool UafIpc::Admission::admits(pthread_t newThread) {
    pthread_mutex_lock(&startMutex);
    const bool admitted = any && pthread_equal(thread, newThread) != 0;
    pthread_mutex_unlock(&startMutex);
    return admitted;
}

void* UafIpc::UafIpcRxThread(void* instance) {
    if (admission.admits(pthread_self())) {
        static_cast<UafIpc*>(instance)->rxLoop();
    }
    return nullptr;
}

void UafIpc::rxLoop() {
    LOGD("rxLoop: starting\n");
    // This thread's own descriptor, never closed.
    const int gadgetFd = open(kUacUserPath, O_WRONLY);
    if (gadgetFd < 0) {
        const int savedErrno = errno;
        LOGE("rxLoop: opening %s failed: <%d:%d>\n", kUacUserPath, gadgetFd, savedErrno);
        return;
    }
    while (running.load(std::memory_order_relaxed) != 0) {
        if (!receiveMsg(gadgetFd)) {
            return;
        }
    }
}

bool UafIpc::receiveMsg(int gadgetFd) const {
    UsbAudioMsgT msg = {};
    const ssize_t size = recvfrom(rxSock, &msg, sizeof msg, 0, nullptr, nullptr);
    const int savedErrno = errno;
    if (size <= 0) {
        // An empty datagram comes here too, with the errno of an earlier call; it ends the thread
        // like an error.
        if (savedErrno == EAGAIN) {
            return true;
        }
        LOGE("receive error: <%d:%d>\n", static_cast<int>(size), savedErrno);
        return false;
    }
    // Of a longer datagram the first eight bytes arrive and count.
    if (size != static_cast<ssize_t>(sizeof msg)) {
        LOGE("unexpected msg size: %d\n", static_cast<int>(size));
    } else {
        handleMsg(gadgetFd, msg);
    }
    return true;
}

// Microphone volume and mute belong to the host: from the app they are unknown messages.
void UafIpc::handleMsg(int gadgetFd, UsbAudioMsgT& msg) {
    switch (msg.type) {
        case USB_AUDIO_MSG_INIT_SYNC:
            LOGD("app request init state sync up");
            msgQueue.queueSyncReply();
            break;
        case USB_AUDIO_MSG_SPK_MUTE:
            LOGD("got speaker volume mute msg: mute=%u", msg.data);
            request(gadgetFd, F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_MUTE, msg.data);
            break;
        case USB_AUDIO_MSG_SPK_VOLUME:
            LOGD("got speaker volume msg: volume=%hd", static_cast<int16_t>(msg.data));
            request(gadgetFd, F_UAC_VEXA_USER_IOCTL_USER_SET_SPK_VOLUME, msg.data);
            break;
        default:
            LOGE("got unknown msg: type=%u, msg: 0x%08X", msg.type, msg.data);
            break;
    }
}

}  // namespace uafd
