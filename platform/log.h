// SPDX-License-Identifier: Apache-2.0
// How the daemon logs, on every system: LOGD for debug, LOGE for errors, each with a literal
// printf format, which tools/check/log-doc compares with docs/log.md. The file that logs has its
// tag in kLogTag. Any thread; errno stays as it is.
#pragma once

#include <android/log.h>

#define LOGD(...) LOGD_AS(kLogTag, __VA_ARGS__)
#define LOGE(...) LOGE_AS(kLogTag, __VA_ARGS__)

// The same with an explicit tag, for functions that get it as an argument.
#define LOGD_AS(tag, ...) __android_log_print(ANDROID_LOG_DEBUG, tag, __VA_ARGS__)
#define LOGE_AS(tag, ...) __android_log_print(ANDROID_LOG_ERROR, tag, __VA_ARGS__)
