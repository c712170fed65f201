// SPDX-License-Identifier: Apache-2.0
// Watches the frame buffer's calls and fails them on demand, by the linker's --wrap: an unset hook
// passes a call on to the real frame buffer. Hooks are set before the threads that meet them start.
#pragma once

#include <functional>

#include "buffer/ssrs.h"

namespace fake_ssrs {

struct Hooks {
    std::function<int32_t(SSRS_Ctx*)> initContext;
    std::function<int32_t(SSRS_Ctx*, int32_t)> setFrameSize;
    std::function<int32_t(SSRS_Ctx*, int16_t*, int32_t)> setQBuff;
    std::function<int32_t(SSRS_Ctx*, int32_t, int32_t)> setQDepth;
    std::function<int32_t(SSRS_Ctx*, const int16_t*, int32_t)> write;
    std::function<int32_t(SSRS_Ctx*, int16_t*)> read;
    std::function<int32_t(const SSRS_Ctx*, SSRS_Stats*)> statsGet;
};

// The hooks in force; reset() unsets them all.
Hooks& hooks();
void reset();

namespace real {
int32_t initContext(SSRS_Ctx* ctx);
int32_t setFrameSize(SSRS_Ctx* ctx, int32_t n);
int32_t setQBuff(SSRS_Ctx* ctx, int16_t* storage, int32_t len);
int32_t setQDepth(SSRS_Ctx* ctx, int32_t low, int32_t high);
int32_t write(SSRS_Ctx* ctx, const int16_t* data, int32_t n);
int32_t read(SSRS_Ctx* ctx, int16_t* out);
int32_t statsGet(const SSRS_Ctx* ctx, SSRS_Stats* stats);
}  // namespace real

}  // namespace fake_ssrs
