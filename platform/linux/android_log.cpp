// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <android/log.h>

namespace {

constexpr size_t kTextBytes = 1024;  // as on Android, terminator included
constexpr size_t kLineBytes = 4096;  // what a pipe that polls writable takes at once (PIPE_BUF)
constexpr char kPriorities[] = "??VDIWEFS";  // logcat's letter for each android_LogPriority

constexpr int64_t kSecondsPerDay = 86400;

// One writer at a time: the room that poll() saw is still there at the write(). It is locked only
// with SIGPIPE blocked, so that the SIGPIPE handler may log too.
//
// Priority inheritance makes an unlock hand the lock to the thread that waits for it. Without that,
// a thread that logs without a pause takes the lock again before the waiting thread has woken up.
// The source's buffer thread logs like that when its FIFO is gone, until the worker stops it; the
// worker itself logs, so it must get the lock.
struct OutputLock {
    OutputLock() noexcept {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
        pthread_mutex_init(&mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~OutputLock() = default;
    OutputLock(const OutputLock&) = delete;
    OutputLock& operator=(const OutputLock&) = delete;

    pthread_mutex_t mutex{};
};
OutputLock output;

struct CivilTime {
    int month, day, hour, minute, second, millisecond;
};

// UTC by arithmetic: localtime_r and gmtime_r both lock and may read files and allocate. Years are
// counted from 1 March, so that the leap day is a year's last.
CivilTime toCivil(const timespec& now) {
    constexpr int64_t daysPerEra = 146097;   // 400 years
    constexpr int64_t daysToEpoch = 719468;  // 0000-03-01 to 1970-01-01
    const int64_t seconds = now.tv_sec % kSecondsPerDay;
    const int64_t dayOfEra = (now.tv_sec / kSecondsPerDay + daysToEpoch) % daysPerEra;
    const int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / (daysPerEra - 1)) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    const int64_t day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    return {static_cast<int>(month),          static_cast<int>(day),
            static_cast<int>(seconds / 3600), static_cast<int>(seconds / 60 % 60),
            static_cast<int>(seconds % 60),   static_cast<int>(now.tv_nsec / 1000000)};
}

char priorityLetter(int prio) {
    return prio >= 0 && prio <= ANDROID_LOG_SILENT ? kPriorities[prio] : '?';
}

bool isLineEnd(char c) {
    return c == '\n' || c == '\r';
}

// Makes the text one line, without a line end.
void flatten(char* text) {
    size_t length = strlen(text);
    while (length > 0 && isLineEnd(text[length - 1])) {
        length--;
    }
    text[length] = '\0';
    for (size_t i = 0; i < length; ++i) {
        if (isLineEnd(text[i])) {
            text[i] = ' ';
        }
    }
}

// The whole line, its end included; returns its length.
size_t formatLine(char (&line)[kLineBytes], int prio, const char* tag, const char* text) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const CivilTime t = toCivil(now);
    const int wanted = snprintf(
        line, sizeof line - 1, "%02d-%02d %02d:%02d:%02d.%03d %5d %5d %c %-8s: %s", t.month, t.day,
        t.hour, t.minute, t.second, t.millisecond, static_cast<int>(getpid()),
        static_cast<int>(gettid()), priorityLetter(prio), tag, text);
    const size_t length = wanted < 0 ? 0 : strnlen(line, sizeof line - 1);
    line[length] = '\n';
    return length + 1;
}

// Writes if that cannot wait. A stopped reader must not freeze an audio thread. A terminal gives
// EINTR at once when a signal is pending: the line is not lost for that.
int writeWithoutWaiting(const char* line, size_t length) {
    ssize_t written;
    do {
        pollfd out = {STDERR_FILENO, POLLOUT, 0};
        if (poll(&out, 1, 0) != 1) {
            return -EAGAIN;
        }
        written = write(STDERR_FILENO, line, length);
    } while (written < 0 && errno == EINTR);
    return written < 0 ? -errno : static_cast<int>(written);
}

// Keeps a gone reader's SIGPIPE from this thread: the daemon's handler for it logs as well.
int writeLine(const char* line, size_t length) {
    sigset_t pipeOnly;
    sigset_t before;
    sigset_t pendingBefore;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly, &before);
    sigpending(&pendingBefore);

    pthread_mutex_lock(&output.mutex);
    const int result = writeWithoutWaiting(line, length);
    pthread_mutex_unlock(&output.mutex);

    // One that was pending before is somebody else's, and stays.
    if (result == -EPIPE && sigismember(&pendingBefore, SIGPIPE) == 0) {
        const timespec atOnce = {0, 0};
        sigtimedwait(&pipeOnly, nullptr, &atOnce);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result;
}

}  // namespace

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    const int savedErrno = errno;
    char text[kTextBytes];
    va_list arguments;
    va_start(arguments, fmt);
    if (vsnprintf(text, sizeof text, fmt, arguments) < 0) {
        text[0] = '\0';
    }
    va_end(arguments);
    flatten(text);

    char line[kLineBytes];
    const size_t length = formatLine(line, prio, tag != nullptr ? tag : "", text);
    const int result = writeLine(line, length);
    errno = savedErrno;
    return result;
}
