// SPDX-License-Identifier: Apache-2.0
// Sending to the app: the queue and the transmit thread.
#include <cerrno>
#include <ctime>

#include <sys/socket.h>

#include "ipc/log_tag.h"
#include "ipc/uaf_ipc.h"
#include "platform/log.h"

namespace uafd {

MsgQueue UafIpc::msgQueue;

namespace {

void pauseBeforeRetry() {
    timespec left = {kIpcSendRetryPauseS, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace

void UafIpc::queueMsg(const UsbAudioMsgT& msg) {
    msgQueue.queueMsg(msg);
}

void* UafIpc::UafIpcTxThread(void* /*unused*/) {
    txLoop();
    return nullptr;
}

void UafIpc::txLoop() {
    LOGD("txLoop: starting\n");
    while (msgQueue.sendOldest(sendMsg)) {
    }
}

void UafIpc::sendMsg(const UsbAudioMsgT& msg) {
    const auto* cursor = reinterpret_cast<const char*>(&msg);
    size_t remaining = sizeof msg;
    int attempts = 0;  // all sends
    int retries = 0;   // those without result, and those that found no socket
    while (remaining > 0 && retries < kIpcSendRetriesMax) {
        const ssize_t rc = sendto(txSock, cursor, remaining, 0,
                                  reinterpret_cast<const sockaddr*>(&txAddr), sizeof txAddr);
        const int savedErrno = errno;
        attempts++;
        if (rc > 0) {
            cursor += rc;
            remaining -= static_cast<size_t>(rc);
        } else if (rc == 0) {
            retries++;
        } else if (savedErrno == ENOENT) {
            retries++;
            pauseBeforeRetry();
        } else {
            LOGE(
                "sendMsg failed: error: <%d:%d>; bytes: %d; attempts: <%d:%d>; "
                "data: <0x%08X:0x%08X>\n",
                static_cast<int>(rc), savedErrno, static_cast<int>(sizeof msg - remaining),
                attempts, retries, msg.type, msg.data);
            return;
        }
    }
}

}  // namespace uafd
