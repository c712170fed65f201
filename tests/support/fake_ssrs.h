// SPDX-License-Identifier: Apache-2.0
// Watches the frame buffer's calls and makes them fail on request, by the linker's --wrap: an unset
// hook passes a call on to the real frame buffer. Hooks are set before the threads that use them
// start.
#pragma once

#include <functional>

#include "buffer/ssrs.h"
#include "tests/support/wrapping.h"

namespace fake_ssrs {

struct Hooks {
#define WRAPPED WRAPPED_HOOK
#include "tests/support/wrapped_ssrs.inc"
};

// The hooks in force; reset() unsets them all.
Hooks& hooks();
void reset();

namespace real {
#define WRAPPED WRAPPED_REAL
#include "tests/support/wrapped_ssrs.inc"
}  // namespace real

}  // namespace fake_ssrs
