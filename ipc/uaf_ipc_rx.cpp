// SPDX-License-Identifier: Apache-2.0
// The way in: the receive thread and what it does about the app's messages.
#include <cerrno>
#include <fcntl.h>

#include <sys/ioctl.h>
#include <sys/socket.h>

#include "daemon/uac_user.h"
#include "ipc/uaf_ipc.h"
#include "ipc/uaf_ipc_log.h"

namespace {

void request(int gadgetFd, unsigned long code, uint32_t& data) {
    const int rc = ioctl(gadgetFd, code, &data);
    const int error = errno;
    if (rc != 0) {
        LOGE("rxLoop: ioctl failed: <%d:%d>\n", rc, error);
    }
}

}  // namespace

void UafIpc::rxLoop() {
    LOGD("rxLoop: starting\n");
    // This thread's own descriptor, never closed.
    const int gadgetFd = open(UAC_USER_PATH, O_WRONLY);
    if (gadgetFd < 0) {
        const int error = errno;
        LOGE("rxLoop: opening %s failed: <%d:%d>\n", UAC_USER_PATH, gadgetFd, error);
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
    const int error = errno;
    if (size <= 0) {
        // An empty datagram comes here too, with the errno of some earlier call: it ends the
        // thread like an error does.
        if (error == EAGAIN) {
            return true;
        }
        LOGE("receive error: <%d:%d>\n", static_cast<int>(size), error);
        return false;
    }
    // A longer datagram arrives as its first eight bytes, and counts.
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
            queueSyncReply();
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

// One hold for the whole reply, read from the cache and not written to it: a state that another
// thread queues meanwhile stands behind the reply, and the reply cannot revive the one before.
void UafIpc::queueSyncReply() {
    if (!lockQueue()) {
        return;
    }
    if (lastUsbState.load(std::memory_order_relaxed) == 1) {
        appendOrOverwrite(UafIpcConnectedMsg);
        appendOrOverwrite({USB_AUDIO_MSG_SPK_STATE, lastSpkState.load(std::memory_order_relaxed)});
        appendOrOverwrite({USB_AUDIO_MSG_MIC_STATE, lastMicState.load(std::memory_order_relaxed)});
    } else {
        appendOrOverwrite(UafIpcDisconnectedMsg);
    }
    unlockQueue();
}
