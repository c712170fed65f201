// SPDX-License-Identifier: Apache-2.0
#include "ipc/uaf_ipc.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include <sys/socket.h>

#include "ipc/app_paths.h"
#include "ipc/uaf_ipc_log.h"

const UsbAudioMsgT UafIpc::UafIpcConnectedMsg = {USB_AUDIO_MSG_USB_STATE, 1};
const UsbAudioMsgT UafIpc::UafIpcDisconnectedMsg = {USB_AUDIO_MSG_USB_STATE, 0};

int UafIpc::txSock = -1;
sockaddr_un UafIpc::txAddr;

namespace {

// Held by start() while it creates the threads: a receive thread passes only when its start is
// through, and only if that start made it. After a failed one main destroys the instance, which
// the new thread must then not touch.
pthread_mutex_t startMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_t admittedThread;  // the receive thread of the last successful start
bool anyAdmitted = false;

bool waitUntilAdmitted() {
    pthread_mutex_lock(&startMutex);
    const bool admitted = anyAdmitted && pthread_equal(admittedThread, pthread_self()) != 0;
    pthread_mutex_unlock(&startMutex);
    return admitted;
}

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
    const int error = errno;
    if (error == ENOENT) {
        // An error line although nothing is wrong: whoever watches the log of a first start
        // expects it.
        LOGE("unlink failed err %d, path does not exist ... ignoring", error);
        return true;
    }
    LOGE("unlink failed, error: %d", error);
    return false;
}

}  // namespace

UafIpc::UafIpc() : rxSock(-1), running(0) {}

UafIpc::~UafIpc() = default;

bool UafIpc::start() {
    msgQueue = {nullptr, &msgQueue.first};
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
        const int error = errno;
        LOGE("socket failed: <%d:%d>\n", txSock, error);
        return false;
    }
    fillAddress(txAddr, IPC_RX_PATH);

    rxSock = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (rxSock < 0) {
        const int error = errno;
        // Without a line end, which tells it from the sending socket's line.
        LOGE("socket failed: <%d:%d>", rxSock, error);
        return false;
    }
    fillAddress(rxAddr, IPC_TX_PATH);

    if (!removeStalePath(IPC_TX_PATH)) {
        return false;
    }
    if (bind(rxSock, reinterpret_cast<const sockaddr*>(&rxAddr), sizeof rxAddr) != 0) {
        const int error = errno;
        LOGE("bind failed, error: %d\n", error);
        return false;
    }
    return true;
}

bool UafIpc::createThreads() {
    pthread_mutex_lock(&startMutex);
    int rc = pthread_create(&rxThread, nullptr, UafIpcRxThread, this);
    int error = errno;
    if (rc != 0) {
        LOGE("creating IPC RX thread failed: <%d:%d:%s>\n", rc, error, strerror(error));
    } else {
        rc = pthread_create(&txThread, nullptr, UafIpcTxThread, this);
        error = errno;
        if (rc != 0) {
            LOGE("creating IPC TX thread failed: <%d:%d:%s>\n", rc, error, strerror(error));
        }
    }
    anyAdmitted = rc == 0;
    admittedThread = rxThread;
    pthread_mutex_unlock(&startMutex);
    return rc == 0;
}

void UafIpc::closeSockets() {
    if (rxSock >= 0) {
        const int rc = close(rxSock);
        const int error = errno;
        if (rc != 0) {
            LOGE("closing IPC rx socket failed: <%d:%d:%s>\n", rc, error, strerror(error));
        }
        rxSock = -1;
    }
    if (txSock >= 0) {
        const int rc = close(txSock);
        const int error = errno;
        if (rc != 0) {
            LOGE("closing IPC tx socket failed: <%d:%d:%s>\n", rc, error, strerror(error));
        }
        txSock = -1;
    }
}

void* UafIpc::UafIpcRxThread(void* instance) {
    if (waitUntilAdmitted()) {
        static_cast<UafIpc*>(instance)->rxLoop();
    }
    return nullptr;
}
