// SPDX-License-Identifier: Apache-2.0
#include "tests/support/fake_ssrs.h"

#include "tests/support/fake_sys.h"

extern "C" {
#define WRAPPED WRAPPED_LINKED
#include "tests/support/wrapped_ssrs.inc"
}

namespace fake_ssrs {

Hooks& hooks() {
    static auto* const current = new Hooks;
    return *current;
}

void reset() {
    hooks() = Hooks{};
}

const fake_sys::Restorer kRestorer(reset);

namespace real {
#define WRAPPED WRAPPED_REAL_BODY
#include "tests/support/wrapped_ssrs.inc"
}  // namespace real

extern "C" {
#define WRAPPED WRAPPED_CALL
#include "tests/support/wrapped_ssrs.inc"
}

}  // namespace fake_ssrs
