// SPDX-License-Identifier: Apache-2.0
// The stand-ins' fixtures. They are apart from the stand-ins because they also need the fake log.
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
