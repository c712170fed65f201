// SPDX-License-Identifier: Apache-2.0
// The messages that wait for the app: a bounded list with its lock, and the last states queued,
// with which a sync-up is answered. Any thread queues; one thread takes and sends. Logs under the
// tag "UAFIPC".
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <pthread.h>

#include "ipc/usb_audio_msg.h"

namespace uafd {

constexpr uint32_t kIpcQueueMax = 100;  // pending messages kept for an absent app

// One pending message.
struct UafIpcQueueEntry {
    UafIpcQueueEntry* next;       // newer node
    UafIpcQueueEntry** prevNext;  // the older node's next, or the list's first
    UsbAudioMsgT msg;             // a copy
};
static_assert(offsetof(UafIpcQueueEntry, next) == 0, "MsgQueue::tail is also the newest node");

class MsgQueue {
  public:
    // Appends a copy; when kIpcQueueMax messages are pending it replaces the newest of them. A
    // state message also updates the state in sync-up replies. A message that is lost or replaced
    // is logged (error), not reported to the caller.
    void queueMsg(const UsbAudioMsgT& msg);

    // Queues the answer to a sync-up: all three states when the USB host has configured the
    // gadget, otherwise the USB state alone. A loss is logged.
    void queueSyncReply();

    // The sending thread only: waits for a message, takes the oldest, sends it with no lock held
    // and frees it. False, and logged, when the lock or the condition fails; the thread must then
    // end.
    bool sendOldest(void (*send)(const UsbAudioMsgT& msg));

    // Empties the list at a start. Frees nothing and leaves the count, because nothing has been
    // queued yet.
    void resetList();

  private:
    void cacheState(const UsbAudioMsgT& msg);
    bool lock();
    void unlock();
    // The next five are called with queueMutex held.
    void appendOrOverwrite(const UsbAudioMsgT& msg);
    bool append(const UsbAudioMsgT& msg);
    bool overwriteNewest(const UsbAudioMsgT& msg);
    UafIpcQueueEntry* takeOldest();
    bool waitForMsg();

    // Guards the list and its length. An innermost lock: while it is held nothing is locked or
    // sent, and nothing but queueCond is waited for.
    pthread_mutex_t queueMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t queueCond =
        PTHREAD_COND_INITIALIZER;       // broadcast after each append or overwrite
    UafIpcQueueEntry* first = nullptr;  // the oldest
    UafIpcQueueEntry** tail = &first;   // the newest node's next, or first
    uint32_t msgQueueLen = 0;

    // The last state, 0 or 1, that was queued of each kind. Relaxed: producers store before they
    // take queueMutex and a reply reads while it holds it, so the lock provides the order.
    std::atomic<uint32_t> lastUsbState{0};
    std::atomic<uint32_t> lastSpkState{0};
    std::atomic<uint32_t> lastMicState{0};
};

}  // namespace uafd
