// SPDX-License-Identifier: Apache-2.0
#include "ipc/msg_queue.h"

#include <cstdlib>

#include "ipc/log_tag.h"
#include "platform/log.h"

namespace uafd {

void MsgQueue::queueMsg(const UsbAudioMsgT& msg) {
    cacheState(msg);
    if (!lock()) {
        return;
    }
    appendOrOverwrite(msg);
    unlock();
}

// Holds the lock for the whole reply and only reads the cache: a state that another thread queues
// meanwhile comes after the reply, and the reply cannot restore an older state.
void MsgQueue::queueSyncReply() {
    if (!lock()) {
        return;
    }
    if (lastUsbState.load(std::memory_order_relaxed) == 1) {
        appendOrOverwrite({USB_AUDIO_MSG_USB_STATE, 1});
        appendOrOverwrite({USB_AUDIO_MSG_SPK_STATE, lastSpkState.load(std::memory_order_relaxed)});
        appendOrOverwrite({USB_AUDIO_MSG_MIC_STATE, lastMicState.load(std::memory_order_relaxed)});
    } else {
        appendOrOverwrite({USB_AUDIO_MSG_USB_STATE, 0});
    }
    unlock();
}

bool MsgQueue::sendOldest(void (*send)(const UsbAudioMsgT& msg)) {
    int rc = pthread_mutex_lock(&queueMutex);
    if (rc != 0) {
        LOGE("txLoop: lock failed: %d\n", rc);
        return false;
    }
    if (!waitForMsg()) {
        return false;
    }
    UafIpcQueueEntry* const entry = takeOldest();
    rc = pthread_mutex_unlock(&queueMutex);
    if (entry != nullptr) {
        send(entry->msg);
        free(entry);
    } else {
        LOGE("txLoop: dequeue returned: NULL\n");
    }
    if (rc != 0) {
        LOGE("txLoop: unlock failed: %d\n", rc);
    }
    return rc == 0;
}

void MsgQueue::resetList() {
    first = nullptr;
    tail = &first;
}

void MsgQueue::cacheState(const UsbAudioMsgT& msg) {
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

bool MsgQueue::lock() {
    const int rc = pthread_mutex_lock(&queueMutex);
    if (rc != 0) {
        LOGE("queueMsg: lock failed: %d\n", rc);
    }
    return rc == 0;
}

void MsgQueue::unlock() {
    const int rc = pthread_mutex_unlock(&queueMutex);
    if (rc != 0) {
        LOGE("queueMsg: unlock failed: %d\n", rc);
    }
}

void MsgQueue::appendOrOverwrite(const UsbAudioMsgT& msg) {
    const bool queued = msgQueueLen < kIpcQueueMax ? append(msg) : overwriteNewest(msg);
    if (!queued) {
        return;
    }
    const int rc = pthread_cond_broadcast(&queueCond);
    if (rc != 0) {
        LOGE("queueMsg: conditional broadcast failed: %d\n", rc);
    }
}

bool MsgQueue::append(const UsbAudioMsgT& msg) {
    auto* const entry = static_cast<UafIpcQueueEntry*>(malloc(sizeof(UafIpcQueueEntry)));
    if (entry == nullptr) {
        LOGE("queueMsg: malloc failed\n");
        return false;
    }
    *entry = {nullptr, tail, msg};
    *tail = entry;
    tail = &entry->next;
    msgQueueLen++;
    return true;
}

// Replaces the newest message whatever its type; the older messages stay as they are.
bool MsgQueue::overwriteNewest(const UsbAudioMsgT& msg) {
    if (first == nullptr) {
        LOGE("queueMsg: last entry is NULL\n");
        return false;
    }
    UsbAudioMsgT& newest = reinterpret_cast<UafIpcQueueEntry*>(tail)->msg;
    LOGE("queueMsg: overwriting msg: <0x%08X:0x%08X> -> <0x%08X:0x%08X>\n", newest.type,
         newest.data, msg.type, msg.data);
    newest = msg;
    return true;
}

// Returns true with the lock held, or false without it.
bool MsgQueue::waitForMsg() {
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

UafIpcQueueEntry* MsgQueue::takeOldest() {
    UafIpcQueueEntry* const entry = first;
    if (entry == nullptr) {
        return nullptr;
    }
    *entry->prevNext = entry->next;
    if (entry->next != nullptr) {
        entry->next->prevNext = entry->prevNext;
    } else {
        tail = entry->prevNext;
    }
    msgQueueLen--;
    return entry;
}

}  // namespace uafd
