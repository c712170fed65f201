// SPDX-License-Identifier: Apache-2.0
// Reports a failed set-up step of a PCM. The channels and the ALSA helpers both use it, each with
// its own log tag.
#pragma once

#include "platform/log.h"

namespace uafd {

// Logs "error at FUNCTION@STEP: RESULT=CODE" at error level. `step` is a fixed number that names
// the step in field logs and never follows the source's lines; `result` is the name of the variable
// that held the code, which differs between functions and which log readers search for.
// Any thread. Returns `code`.
inline int logStepError(const char* tag, const char* function, int step, const char* result,
                        int code) {
    LOGE_AS(tag, "error at %s@%d: %s=%d\n", function, step, result, code);
    return code;
}

}  // namespace uafd
