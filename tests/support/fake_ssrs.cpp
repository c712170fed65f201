// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_ssrs.h"

// The real calls, under the names that the linker gives them.
extern "C" {
int32_t __real_SSRS_InitContext(SSRS_Ctx* ctx);
int32_t __real_SSRS_SetFrameSize(SSRS_Ctx* ctx, int32_t n);
int32_t __real_SSRS_SetQBuff(SSRS_Ctx* ctx, int16_t* storage, int32_t len);
int32_t __real_SSRS_SetQDepth(SSRS_Ctx* ctx, int32_t low, int32_t high);
int32_t __real_SSRS_Write(SSRS_Ctx* ctx, const int16_t* data, int32_t n);
int32_t __real_SSRS_Read(SSRS_Ctx* ctx, int16_t* out);
int32_t __real_SSRS_StatsGet(const SSRS_Ctx* ctx, SSRS_Stats* stats);
}

namespace fake_ssrs {

Hooks& hooks() {
    static auto* const current = new Hooks;
    return *current;
}

void reset() {
    hooks() = Hooks{};
}

namespace real {

int32_t initContext(SSRS_Ctx* ctx) {
    return __real_SSRS_InitContext(ctx);
}
int32_t setFrameSize(SSRS_Ctx* ctx, int32_t n) {
    return __real_SSRS_SetFrameSize(ctx, n);
}
int32_t setQBuff(SSRS_Ctx* ctx, int16_t* storage, int32_t len) {
    return __real_SSRS_SetQBuff(ctx, storage, len);
}
int32_t setQDepth(SSRS_Ctx* ctx, int32_t low, int32_t high) {
    return __real_SSRS_SetQDepth(ctx, low, high);
}
int32_t write(SSRS_Ctx* ctx, const int16_t* data, int32_t n) {
    return __real_SSRS_Write(ctx, data, n);
}
int32_t read(SSRS_Ctx* ctx, int16_t* out) {
    return __real_SSRS_Read(ctx, out);
}
int32_t statsGet(const SSRS_Ctx* ctx, SSRS_Stats* stats) {
    return __real_SSRS_StatsGet(ctx, stats);
}

}  // namespace real
}  // namespace fake_ssrs

using fake_ssrs::hooks;
namespace real = fake_ssrs::real;

extern "C" {
int32_t __wrap_SSRS_InitContext(SSRS_Ctx* ctx) {
    return hooks().initContext ? hooks().initContext(ctx) : real::initContext(ctx);
}
int32_t __wrap_SSRS_SetFrameSize(SSRS_Ctx* ctx, int32_t n) {
    return hooks().setFrameSize ? hooks().setFrameSize(ctx, n) : real::setFrameSize(ctx, n);
}
int32_t __wrap_SSRS_SetQBuff(SSRS_Ctx* ctx, int16_t* storage, int32_t len) {
    return hooks().setQBuff ? hooks().setQBuff(ctx, storage, len)
                            : real::setQBuff(ctx, storage, len);
}
int32_t __wrap_SSRS_SetQDepth(SSRS_Ctx* ctx, int32_t low, int32_t high) {
    return hooks().setQDepth ? hooks().setQDepth(ctx, low, high) : real::setQDepth(ctx, low, high);
}
int32_t __wrap_SSRS_Write(SSRS_Ctx* ctx, const int16_t* data, int32_t n) {
    return hooks().write ? hooks().write(ctx, data, n) : real::write(ctx, data, n);
}
int32_t __wrap_SSRS_Read(SSRS_Ctx* ctx, int16_t* out) {
    return hooks().read ? hooks().read(ctx, out) : real::read(ctx, out);
}
int32_t __wrap_SSRS_StatsGet(const SSRS_Ctx* ctx, SSRS_Stats* stats) {
    return hooks().statsGet ? hooks().statsGet(ctx, stats) : real::statsGet(ctx, stats);
}
}
