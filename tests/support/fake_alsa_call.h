// SPDX-License-Identifier: Apache-2.0
// What the parts of the fake alsa-lib share: the lock over all of its state, and how a call is
// recorded and answered from the script.
#pragma once

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>

#include "tests/support/fake_sys.h"

namespace fake_alsa {

// Guards record, scripts, PCMs and cards; never held while a hook runs.
fake_sys::Mutex& lock();
using Guard = std::lock_guard<fake_sys::Mutex>;

bool isRecording();

// Records the call "function(arguments)" and returns its scripted answer, if it has one.
std::optional<long> record(const std::string& function, const std::string& arguments);

// The recorded call's answer: the script's, or else what `effect` returns.
template <typename Effect>
int answer(const std::string& function, const std::string& arguments, Effect effect) {
    const std::optional<long> scripted = record(function, arguments);
    return scripted ? static_cast<int>(*scripted) : effect();
}

// Shows in the record whether the caller filled a container with zeros.
template <typename Container>
const char* fillOf(const Container* container) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(container);
    const bool zeroed =
        std::all_of(bytes, bytes + sizeof *container, [](unsigned char byte) { return byte == 0; });
    return zeroed ? ", zeroed" : ", dirty";
}

void resetPcms();
void resetCards();

}  // namespace fake_alsa
