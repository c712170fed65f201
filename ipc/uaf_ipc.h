// SPDX-License-Identifier: Apache-2.0
// The app IPC service: one datagram per message between the daemon and the companion app. A receive
// thread turns the app's requests into gadget requests and sync-up replies; a transmit thread
// sends what is queued for the app and waits for the app's socket while it is missing. main owns
// the one instance and calls start() once. Any thread calls queueMsg(), which needs no instance:
// the queue and the sending socket are static. Logs under the tag "UAFIPC".
#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include <sys/un.h>

#include "ipc/msg_queue.h"
#include "ipc/usb_audio_msg.h"

namespace uafd {

constexpr int kIpcSendRetriesMax = 20;   // per message, which is then dropped
constexpr long kIpcSendRetryPauseS = 5;  // while the app's socket does not exist

class UafIpc {
  public:
    static const UsbAudioMsgT UafIpcConnectedMsg;     // USB state 1
    static const UsbAudioMsgT UafIpcDisconnectedMsg;  // USB state 0

    UafIpc();
    // Stops no thread, closes no socket, frees no message: the threads last as long as the process.
    virtual ~UafIpc();

    // Opens both sockets and starts both threads. False, with the failed step logged, when that
    // fails: the instance is then not in use and may be destroyed.
    bool start();

    // Any thread: queues a copy for the app, see MsgQueue::queueMsg.
    static void queueMsg(const UsbAudioMsgT& msg);

  protected:
    static MsgQueue msgQueue;

  private:
    static void* UafIpcRxThread(void* instance);
    static void* UafIpcTxThread(void* instance);

    bool openSockets();
    bool createThreads();
    void closeSockets();

    void rxLoop();
    // False ends the receive thread.
    bool receiveMsg(int gadgetFd) const;
    static void handleMsg(int gadgetFd, UsbAudioMsgT& msg);

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

    // Which receive thread may begin. Static: after a failed start main destroys the instance, and
    // the thread that already exists must not touch it.
    struct Admission {
        // Held by start() while it creates both threads.
        pthread_mutex_t startMutex = PTHREAD_MUTEX_INITIALIZER;
        bool any = false;    // whether the last start was successful
        pthread_t thread{};  // its receive thread

        bool admits(pthread_t newThread);
    };
    static Admission admission;
};

}  // namespace uafd
