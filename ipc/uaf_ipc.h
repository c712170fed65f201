// SPDX-License-Identifier: Apache-2.0
// The app IPC service: one datagram per message between the daemon and the companion app. A receive
// thread turns the app's requests into gadget requests and sync-up replies; a transmit thread
// drains a bounded queue towards the app and waits for the app's socket while it is missing. main
// owns the one instance and calls start() once. queueMsg() is for any thread, without the instance:
// the queue, its lock and the sending socket are the process's.
#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include <sys/un.h>

#include "ipc/usb_audio_msg.h"

constexpr uint32_t UAF_IPC_QUEUE_MAX = 100;     // pending messages kept for an absent app
constexpr int UAF_IPC_SEND_RETRIES_MAX = 20;    // per message, then it is dropped
constexpr long UAF_IPC_SEND_RETRY_PAUSE_S = 5;  // while the app's socket does not exist

// One pending message.
struct UafIpcQueueEntry {
    UafIpcQueueEntry* next;       // newer node; first, so that its address is also the node's
    UafIpcQueueEntry** prevNext;  // the older node's next, or the list's first
    UsbAudioMsgT msg;             // a copy
};

class UafIpc {
  public:
    static const UsbAudioMsgT UafIpcConnectedMsg;
    static const UsbAudioMsgT UafIpcDisconnectedMsg;

    UafIpc();
    // Stops no thread, closes no socket, frees no message: the threads last as long as the process.
    virtual ~UafIpc();

    // Opens both sockets and starts both threads; logs the step that failed. After false nothing of
    // the instance is in use and it may be destroyed.
    bool start();

    // Any thread. Appends a copy for the app; with UAF_IPC_QUEUE_MAX messages pending the newest of
    // them gives way. A state message also updates the state that a sync-up reply gives. A loss is
    // logged, not reported.
    static void queueMsg(const UsbAudioMsgT& msg);

  private:
    // Pending messages, oldest first.
    struct MsgQueue {
        UafIpcQueueEntry* first;
        UafIpcQueueEntry** tail;  // the newest node's next, or first
    };

    static void* UafIpcRxThread(void* instance);
    static void* UafIpcTxThread(void* instance);

    bool openSockets();
    bool createThreads();
    void closeSockets();

    void rxLoop();
    // False ends the receive thread.
    bool receiveMsg(int gadgetFd) const;
    static void handleMsg(int gadgetFd, UsbAudioMsgT& msg);
    static void queueSyncReply();

    static void cacheState(const UsbAudioMsgT& msg);
    static bool lockQueue();
    static void unlockQueue();
    // These five: with queueMutex held.
    static void appendOrOverwrite(const UsbAudioMsgT& msg);
    static bool append(const UsbAudioMsgT& msg);
    static bool overwriteNewest(const UsbAudioMsgT& msg);
    static UafIpcQueueEntry* takeOldest();
    static bool waitForMsg();

    static void txLoop();
    static void sendMsg(const UsbAudioMsgT& msg);

    pthread_t rxThread{};
    pthread_t txThread{};
    int rxSock;  // -1: none
    sockaddr_un rxAddr{};
    // Relaxed: it is set before the threads exist and publishes nothing else.
    std::atomic<int32_t> running;

    static int txSock;  // -1: none; never bound or connected
    static sockaddr_un txAddr;

    // Guards msgQueue and msgQueueLen. A leaf: nothing is locked, sent or waited for (but
    // queueCond) while it is held.
    static pthread_mutex_t queueMutex;
    static pthread_cond_t queueCond;  // broadcast after each append or overwrite

    // The last state 0 or 1 that was queued of each kind. Relaxed: producers store before they take
    // queueMutex and a reply reads while it holds it, so the lock gives the order that counts.
    static std::atomic<uint32_t> lastUsbState;
    static std::atomic<uint32_t> lastSpkState;
    static std::atomic<uint32_t> lastMicState;

    static MsgQueue msgQueue;
    static uint32_t msgQueueLen;
};
