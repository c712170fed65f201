// SPDX-License-Identifier: Apache-2.0
// The way out: the queue, its producers and the transmit thread.
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <sys/socket.h>

#include "ipc/uaf_ipc.h"
#include "ipc/uaf_ipc_log.h"

pthread_mutex_t UafIpc::queueMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t UafIpc::queueCond = PTHREAD_COND_INITIALIZER;

std::atomic<uint32_t> UafIpc::lastUsbState{0};
std::atomic<uint32_t> UafIpc::lastSpkState{0};
std::atomic<uint32_t> UafIpc::lastMicState{0};

UafIpc::MsgQueue UafIpc::msgQueue = {nullptr, &UafIpc::msgQueue.first};
uint32_t UafIpc::msgQueueLen = 0;

namespace {

void pauseBeforeRetry() {
    timespec left = {UAF_IPC_SEND_RETRY_PAUSE_S, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace

void UafIpc::queueMsg(const UsbAudioMsgT& msg) {
    cacheState(msg);
    if (!lockQueue()) {
        return;
    }
    appendOrOverwrite(msg);
    unlockQueue();
}

void UafIpc::cacheState(const UsbAudioMsgT& msg) {
    if (msg.data > 1) {
        return;
    }
    if (msg.type == USB_AUDIO_MSG_USB_STATE) {
        lastUsbState.store(msg.data, std::memory_order_relaxed);
    } else if (msg.type == USB_AUDIO_MSG_SPK_STATE) {
        lastSpkState.store(msg.data, std::memory_order_relaxed);
    } else if (msg.type == USB_AUDIO_MSG_MIC_STATE) {
        lastMicState.store(msg.data, std::memory_order_relaxed);
    }
}

bool UafIpc::lockQueue() {
    const int rc = pthread_mutex_lock(&queueMutex);
    if (rc != 0) {
        LOGE("queueMsg: lock failed: %d\n", rc);
    }
    return rc == 0;
}

void UafIpc::unlockQueue() {
    const int rc = pthread_mutex_unlock(&queueMutex);
    if (rc != 0) {
        LOGE("queueMsg: unlock failed: %d\n", rc);
    }
}

void UafIpc::appendOrOverwrite(const UsbAudioMsgT& msg) {
    const bool queued = msgQueueLen < UAF_IPC_QUEUE_MAX ? append(msg) : overwriteNewest(msg);
    if (!queued) {
        return;
    }
    const int rc = pthread_cond_broadcast(&queueCond);
    if (rc != 0) {
        LOGE("queueMsg: conditional broadcast failed: %d\n", rc);
    }
}

bool UafIpc::append(const UsbAudioMsgT& msg) {
    auto* const entry = static_cast<UafIpcQueueEntry*>(malloc(sizeof(UafIpcQueueEntry)));
    if (entry == nullptr) {
        LOGE("queueMsg: malloc failed\n");
        return false;
    }
    *entry = {nullptr, msgQueue.tail, msg};
    *msgQueue.tail = entry;
    msgQueue.tail = &entry->next;
    msgQueueLen++;
    return true;
}

// By position, not by type: the older messages stay as they are.
bool UafIpc::overwriteNewest(const UsbAudioMsgT& msg) {
    if (msgQueue.first == nullptr) {
        LOGE("queueMsg: last entry is NULL\n");
        return false;
    }
    UsbAudioMsgT& newest = reinterpret_cast<UafIpcQueueEntry*>(msgQueue.tail)->msg;
    LOGE("queueMsg: overwriting msg: <0x%08X:0x%08X> -> <0x%08X:0x%08X>\n", newest.type,
         newest.data, msg.type, msg.data);
    newest = msg;
    return true;
}

void* UafIpc::UafIpcTxThread(void* /*unused*/) {
    txLoop();
    return nullptr;
}

void UafIpc::txLoop() {
    LOGD("txLoop: starting\n");
    for (;;) {
        int rc = pthread_mutex_lock(&queueMutex);
        if (rc != 0) {
            LOGE("txLoop: lock failed: %d\n", rc);
            return;
        }
        if (!waitForMsg()) {
            return;
        }
        UafIpcQueueEntry* const entry = takeOldest();
        rc = pthread_mutex_unlock(&queueMutex);
        if (entry != nullptr) {
            sendMsg(entry->msg);
            free(entry);
        } else {
            LOGE("txLoop: dequeue returned: NULL\n");
        }
        if (rc != 0) {
            LOGE("txLoop: unlock failed: %d\n", rc);
            return;
        }
    }
}

// Returns with the lock held, or with false and without it.
bool UafIpc::waitForMsg() {
    while (msgQueueLen == 0) {
        int rc = pthread_cond_wait(&queueCond, &queueMutex);
        if (rc == 0) {
            continue;
        }
        LOGE("txLoop: conditional wait failed: %d\n", rc);
        rc = pthread_mutex_unlock(&queueMutex);
        if (rc != 0) {
            LOGE("txLoop: unlock failed: %d\n", rc);
        }
        return false;
    }
    return true;
}

UafIpcQueueEntry* UafIpc::takeOldest() {
    UafIpcQueueEntry* const entry = msgQueue.first;
    if (entry == nullptr) {
        return nullptr;
    }
    *entry->prevNext = entry->next;
    if (entry->next != nullptr) {
        entry->next->prevNext = entry->prevNext;
    } else {
        msgQueue.tail = entry->prevNext;
    }
    msgQueueLen--;
    return entry;
}

void UafIpc::sendMsg(const UsbAudioMsgT& msg) {
    const auto* cursor = reinterpret_cast<const char*>(&msg);
    size_t remaining = sizeof msg;
    int attempts = 0;  // all sends
    int retries = 0;   // those without result, and those that found no socket
    while (remaining > 0 && retries < UAF_IPC_SEND_RETRIES_MAX) {
        const ssize_t rc = sendto(txSock, cursor, remaining, 0,
                                  reinterpret_cast<const sockaddr*>(&txAddr), sizeof txAddr);
        const int error = errno;
        attempts++;
        if (rc > 0) {
            cursor += rc;
            remaining -= static_cast<size_t>(rc);
        } else if (rc == 0) {
            retries++;
        } else if (error == ENOENT) {
            retries++;
            pauseBeforeRetry();
        } else {
            LOGE(
                "sendMsg failed: error: <%d:%d>; bytes: %d; attempts: <%d:%d>; "
                "data: <0x%08X:0x%08X>\n",
                static_cast<int>(rc), error, static_cast<int>(sizeof msg - remaining), attempts,
                retries, msg.type, msg.data);
            return;
        }
    }
}
