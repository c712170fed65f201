// SPDX-License-Identifier: Apache-2.0
// The monitor's log tag, for its own files only.
#pragma once

#include <android/log.h>

#define LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, "UAFCBM", __VA_ARGS__)
#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "UAFCBM", __VA_ARGS__)
