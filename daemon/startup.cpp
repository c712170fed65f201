// SPDX-License-Identifier: Apache-2.0
#include "daemon/startup.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "daemon/log_tag.h"
#include "daemon/uac_user.h"
#include "ipc/app_paths.h"
#include "platform/log.h"

namespace uafd {
namespace {

constexpr char kNullDevicePath[] = "/dev/null";
constexpr useconds_t kRetryPauseUs = 200000;
constexpr unsigned long kLogFailures = 1500;  // from one line to the next: about five minutes

// Returns the open descriptor; `failures` counts the attempts that did not open.
int waitForFifo(const char* path, int flags, unsigned long* failures) {
    for (*failures = 0;; ++*failures) {
        const int fd = open(path, flags);
        if (fd >= 0) {
            return fd;
        }
        if (*failures % kLogFailures == 0) {
            LOGD("%s is not available yet. Waiting for creation...", path);
        }
        usleep(kRetryPauseUs);
    }
}

bool createNode() {
    const int rc =
        mknod(kUacUserPath, S_IFCHR | kUacUserPermissions, makedev(kUacUserMajor, kUacUserMinor));
    const int savedErrno = errno;
    if (rc < 0 && savedErrno != EEXIST) {
        LOGE("mknod failed, rc=%d, errno=%d\n", rc, savedErrno);
        return false;
    }
    return true;
}

}  // namespace

void occupyStandardStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            // Gets this number, the lowest free one. Without a /dev/null the daemon starts with
            // the stream closed.
            open(kNullDevicePath, O_RDWR);
        }
    }
}

void waitForFifos() {
    unsigned long rxFailures;
    unsigned long txFailures;
    const int rxFd = waitForFifo(kFifoRxPath, O_WRONLY, &rxFailures);
    const int txFd = waitForFifo(kFifoTxPath, O_RDONLY, &txFailures);
    LOGD("Fifos observed for %s after %lu attempts, %s after %lu attempts", kFifoRxPath, rxFailures,
         kFifoTxPath, txFailures);
    close(rxFd);
    close(txFd);
}

int openGadgetControl() {
    if (!createNode()) {
        return -1;
    }
    const int fd = open(kUacUserPath, O_RDONLY);
    if (fd < 0) {
        const int savedErrno = errno;
        LOGE("open %s failed, rc=%d, errno=%d\n", kUacUserPath, fd, savedErrno);
    }
    return fd;
}

void requestInitialState(int controlFd) {
    const int rc = ioctl(controlFd, F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, nullptr);
    if (rc != 0) {
        const int savedErrno = errno;
        LOGD("failed F_UAC_VEXA_USER_IOCTL_USER_INIT_SYNC, rc=%d, error=%d\n", rc, savedErrno);
    }
}

}  // namespace uafd
