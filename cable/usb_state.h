// SPDX-License-Identifier: Apache-2.0
// The words of the gadget's state, in its uevents and in its state file, for the monitor's own
// files only.
#pragma once

#include <cstddef>
#include <cstring>

namespace uafd {

constexpr char kUsbStateConfigured[] = "CONFIGURED";
constexpr char kUsbStateDisconnected[] = "DISCONNECTED";

constexpr size_t kStateLineBytes = 32;  // of a state file's line, terminator included

// A file's line carries its line end, so only its beginning is compared.
template <size_t N>
bool beginsWith(const char* text, const char (&word)[N]) {
    return strncmp(text, word, N - 1) == 0;
}

}  // namespace uafd
