// SPDX-License-Identifier: Apache-2.0
// The fixtures of the stand-ins, apart from them: they need the fake log as well.
#include "tests/support/fake_alsa.h"
#include "tests/support/fake_log.h"
#include "tests/support/fake_sys.h"

void fake_sys::Test::SetUp() {
    reset();
    fake_log::onLine() = nullptr;
    fake_log::clear();
}

void fake_sys::Test::TearDown() {
    reset();
    fake_log::onLine() = nullptr;
}

void fake_alsa::Test::SetUp() {
    fake_sys::Test::SetUp();
    reset();
}

void fake_alsa::Test::TearDown() {
    reset();
    fake_sys::Test::TearDown();
}
