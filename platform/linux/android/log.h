// SPDX-License-Identifier: Apache-2.0
// The Android log, off Android: the calls and priorities of <android/log.h> that the daemon uses.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

// Writes one message to standard error as one line in logcat's threadtime form (UTC), with one
// write(); trailing line ends are dropped, inner ones become spaces, a text beyond 1023 bytes is
// cut. Any thread, and the SIGPIPE handler; allocates nothing and keeps errno. It never raises
// SIGPIPE, and when standard error has no room it loses the line instead of waiting.
// Returns the number of bytes written, or a negative errno (-EAGAIN: no room, line lost).
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl*): Android's name
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((__format__(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
