// SPDX-License-Identifier: Apache-2.0
#include "channel/app_fifo.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include "channel/dev_name.h"
#include "platform/log.h"

namespace uafd {
namespace {

// SIGURG is otherwise sent only for urgent data, which the daemon never requests. A stray one is
// harmless even without the handler: by default the signal is ignored.
constexpr int kLetOutSignal = SIGURG;

// A signal that comes just before the wait begins is lost, so it is sent again after this long.
constexpr timespec kSignalInterval{0, 1000000};

void doNothing(int /*number*/) {}

}  // namespace

AppFifo::AppFifo() {
    struct sigaction action {};
    action.sa_handler = doNothing;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART, which would continue the wait. The call cannot fail with these arguments.
    sigaction(kLetOutSignal, &action, nullptr);
}

bool AppFifo::openEnd(const char* path, int flags, size_t blockBytes, const char* tag) {
    descriptor = path == nullptr ? -1 : openPath(path, flags);
    if (descriptor < 0) {
        if (!letOut) {
            LOGE_AS(tag, "failed to open %s\n", DevName::printable(path));
        }
        return false;
    }
    fcntl(descriptor, F_SETPIPE_SZ, static_cast<int>(blockBytes));
    const int capacity = fcntl(descriptor, F_GETPIPE_SZ);
    pipe = capacity >= 0;
    LOGD_AS(tag, "%s opened buffer size %d\n", path, capacity);
    return true;
}

int AppFifo::openPath(const char* path, int flags) {
    int opened;
    bool again;
    do {
        beginLook();
        opened = ::open(path, flags);
        again = opened < 0 && wasInterrupted();
        endLook();
    } while (again);
    return opened;
}

void AppFifo::beginLook() {
    pthread_mutex_lock(&mutex);
    looker = pthread_self();
    looking = true;
    ++looks;
    pthread_mutex_unlock(&mutex);
}

void AppFifo::endLook() {
    pthread_mutex_lock(&mutex);
    looking = false;
    pthread_mutex_unlock(&mutex);
}

// After a failed call: whether a signal interrupted it and it must be repeated.
bool AppFifo::wasInterrupted() {
    if (errno != EINTR) {
        return false;
    }
    letOut = waitsEnded();
    return !letOut;
}

ssize_t AppFifo::read(void* block, size_t bytes) {
    ssize_t result;
    do {
        result = ::read(descriptor, block, bytes);
    } while (result < 0 && wasInterrupted());
    return result;
}

ssize_t AppFifo::write(const void* block, size_t bytes) {
    ssize_t result;
    do {
        result = ::write(descriptor, block, bytes);
    } while (result < 0 && wasInterrupted());
    return result;
}

void AppFifo::close() {
    ::close(descriptor);
    descriptor = -1;
}

void AppFifo::lookAgain() {
    pthread_mutex_lock(&mutex);
    const unsigned looksBefore = looks;
    // cppcheck-suppress knownConditionTrueFalse; the looking thread counts
    while (looking && looks == looksBefore) {
        pthread_kill(looker, kLetOutSignal);
        pthread_mutex_unlock(&mutex);
        nanosleep(&kSignalInterval, nullptr);
        pthread_mutex_lock(&mutex);
    }
    pthread_mutex_unlock(&mutex);
}

void AppFifo::endWaits(pthread_t user, const std::atomic<int32_t>& userRunning) {
    const auto isOut = [&] { return userRunning.load(std::memory_order_acquire) == 0; };
    ended.store(true, std::memory_order_release);
    while (!isOut() && pthread_kill(user, kLetOutSignal) == 0) {
        sched_yield();  // the user has this thread's priority: with one processor it runs now
        if (!isOut()) {
            nanosleep(&kSignalInterval, nullptr);
        }
    }
}

void AppFifo::allowWaits() {
    letOut = false;
    ended.store(false, std::memory_order_relaxed);
}

}  // namespace uafd
